# vexo_quick_build(<source>...): sources that read a command line, write JSON or match expressions once a run. The
# templates of CLI11, nlohmann-json and <regex> take most of the time to compile, and what they do takes none.
function(vexo_quick_build)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "-O0;-g1")
endfunction()

# One interface target carries the flags that every target of the project is compiled with.
add_library(vexo_flags INTERFACE)
# Own headers are included by their path from the root of the tree, so that a line of code tells where it looks.
target_include_directories(vexo_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(vexo_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(VEXO_WARNINGS_AS_ERRORS)
    target_compile_options(vexo_flags INTERFACE -Werror)
endif()
if(VEXO_SANITIZE)
    target_compile_options(vexo_flags INTERFACE -fsanitize=${VEXO_SANITIZE} -fno-omit-frame-pointer
                                                -fno-sanitize-recover=all)
    target_link_options(vexo_flags INTERFACE -fsanitize=${VEXO_SANITIZE})
endif()
if(VEXO_COVERAGE)
    target_compile_options(vexo_flags INTERFACE --coverage -O0)
    target_link_options(vexo_flags INTERFACE --coverage)
endif()
