# With ccache installed, a build that repeats an earlier one takes seconds. -DVEXO_CCACHE=OFF builds without.
option(VEXO_CCACHE "Compile through ccache when it is installed" ON)
if(VEXO_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    find_program(VEXO_CCACHE_PROGRAM ccache)
    if(VEXO_CCACHE_PROGRAM)
        set(CMAKE_C_COMPILER_LAUNCHER ${VEXO_CCACHE_PROGRAM})
        set(CMAKE_CXX_COMPILER_LAUNCHER ${VEXO_CCACHE_PROGRAM})
    endif()
endif()
# ccache caches what uses a precompiled header only when it may overlook the header's time stamps and its macros,
# which the header's content has decided.
if(CMAKE_CXX_COMPILER_LAUNCHER MATCHES "(^|/)ccache$")
    list(PREPEND CMAKE_CXX_COMPILER_LAUNCHER
         env CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime)
endif()
