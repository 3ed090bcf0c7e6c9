# vexo_test_code(<target>): compiled for a quick build, since a test runs its own code once. The library, the card and
# the tools under test keep the flags of the build type.
function(vexo_test_code target)
    # Position-independent as a program is: all test code has to agree, or the precompiled headers do not fit.
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
    target_compile_options(${target} PRIVATE -fPIE -O0 $<$<CONFIG:RelWithDebInfo>:-g1>)
    # What ccache needs to cache a source that uses precompiled headers.
    target_compile_options(${target} PRIVATE
        $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess> "$<$<CXX_COMPILER_ID:Clang>:SHELL:-Xclang -fno-pch-timestamp>")
endfunction()

# GoogleTest and what most tests include besides it, compiled once for all test programs.
add_library(vexo_test_headers OBJECT ${CMAKE_CURRENT_LIST_DIR}/support/Precompiled.cpp)
target_link_libraries(vexo_test_headers PRIVATE vexo_flags Threads::Threads GTest::gtest GTest::gmock)
target_precompile_headers(vexo_test_headers PRIVATE
    <gmock/gmock.h> <gtest/gtest.h>
    <algorithm> <filesystem> <fstream> <functional> <map> <memory> <regex> <set> <sstream> <string> <thread> <vector>)
vexo_test_code(vexo_test_headers)

# vexo_test(<program>
#     SOURCES <source>...
#     [LIBRARIES <target>...]       what it links besides the test support and GoogleTest
#     [ENVIRONMENT <NAME=VALUE>...] of each of its tests
#     [DEFINES <NAME=VALUE>...]     such as the paths of programs that it starts
#     [NEEDS <target>...]           what has to be built before it runs
#     [COST <number>])              above 0 for long tests: ctest starts those first
#
# One test program, each of whose tests ctest runs by itself.
function(vexo_test program)
    cmake_parse_arguments(PARSE_ARGV 1 test "" "COST" "SOURCES;LIBRARIES;ENVIRONMENT;DEFINES;NEEDS")
    if(test_UNPARSED_ARGUMENTS OR NOT test_SOURCES)
        message(FATAL_ERROR "vexo_test(${program}): no SOURCES, or unknown arguments: ${test_UNPARSED_ARGUMENTS}")
    endif()
    add_executable(${program} ${test_SOURCES})
    target_link_libraries(${program} PRIVATE
        vexo_flags ${test_LIBRARIES} vexo_test_support Threads::Threads GTest::gtest GTest::gmock GTest::gtest_main)
    target_compile_definitions(${program} PRIVATE ${test_DEFINES})
    target_precompile_headers(${program} REUSE_FROM vexo_test_headers)
    vexo_test_code(${program})
    if(test_NEEDS)
        add_dependencies(${program} ${test_NEEDS})
    endif()
    set(properties)
    if(test_ENVIRONMENT)
        list(APPEND properties ENVIRONMENT "${test_ENVIRONMENT}")
    endif()
    if(test_COST)
        list(APPEND properties COST ${test_COST})
    endif()
    if(properties)
        list(PREPEND properties PROPERTIES)
    endif()
    gtest_discover_tests(${program} NO_PRETTY_VALUES ${properties} DISCOVERY_TIMEOUT 60)
endfunction()
