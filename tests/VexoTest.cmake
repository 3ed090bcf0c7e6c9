# vexo_test(<program>
#     SOURCES <source>...
#     [LIBRARIES <target>...]       what it links besides the test support and GoogleTest
#     [ENVIRONMENT <NAME=VALUE>...] of each of its tests
#     [DEFINES <NAME=VALUE>...]     such as the paths of programs that it starts
#     [NEEDS <target>...])          what has to be built before it runs
#
# One test program, each of whose tests ctest runs by itself.
function(vexo_test program)
    cmake_parse_arguments(PARSE_ARGV 1 test "" "" "SOURCES;LIBRARIES;ENVIRONMENT;DEFINES;NEEDS")
    if(test_UNPARSED_ARGUMENTS OR NOT test_SOURCES)
        message(FATAL_ERROR "vexo_test(${program}): no SOURCES, or unknown arguments: ${test_UNPARSED_ARGUMENTS}")
    endif()
    add_executable(${program} ${test_SOURCES})
    target_link_libraries(${program} PRIVATE
        vexo_flags ${test_LIBRARIES} vexo_test_support Threads::Threads GTest::gtest GTest::gmock GTest::gtest_main)
    target_compile_definitions(${program} PRIVATE ${test_DEFINES})
    if(test_NEEDS)
        add_dependencies(${program} ${test_NEEDS})
    endif()
    set(properties)
    if(test_ENVIRONMENT)
        set(properties PROPERTIES ENVIRONMENT "${test_ENVIRONMENT}")
    endif()
    gtest_discover_tests(${program} NO_PRETTY_VALUES ${properties} DISCOVERY_TIMEOUT 60)
endfunction()
