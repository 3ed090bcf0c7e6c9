# vexo_hw: what src/ compiles and links against to reach a card. By default the simulated card; the card's own SDK when
# ENYX_HW_ROOT names one. The library is the same either way: the dynamic loader decides at run time which
# libenyx-hw-c.so.1 it gets.
add_library(vexo_hw INTERFACE)
if(ENYX_HW_ROOT)
    # Looked up at every configuration: a remembered result would outlive a change of ENYX_HW_ROOT.
    unset(ENYX_HW_INCLUDE_DIR CACHE)
    unset(ENYX_HW_LIBRARY CACHE)
    find_path(ENYX_HW_INCLUDE_DIR enyx-hw-c/enyx_hw.h PATHS "${ENYX_HW_ROOT}/include" "${ENYX_HW_ROOT}"
              NO_CACHE NO_DEFAULT_PATH)
    find_library(ENYX_HW_LIBRARY enyx-hw-c PATHS "${ENYX_HW_ROOT}/lib" "${ENYX_HW_ROOT}/lib64"
                 "${ENYX_HW_ROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}" "${ENYX_HW_ROOT}" NO_CACHE NO_DEFAULT_PATH)
    if(NOT ENYX_HW_INCLUDE_DIR OR NOT ENYX_HW_LIBRARY)
        message(FATAL_ERROR
                "ENYX_HW_ROOT is ${ENYX_HW_ROOT}, but there is no SDK of the card: it must have "
                "include/enyx-hw-c/enyx_hw.h and lib/libenyx-hw-c.so.\n"
                "Give the right folder with -DENYX_HW_ROOT=/path/to/sdk, or build without the SDK with -DENYX_HW_ROOT=")
    endif()
    message(STATUS "Hardware library: ${ENYX_HW_LIBRARY}")
    target_include_directories(vexo_hw SYSTEM INTERFACE ${ENYX_HW_INCLUDE_DIR})
    target_link_libraries(vexo_hw INTERFACE ${ENYX_HW_LIBRARY})
    cmake_path(GET ENYX_HW_LIBRARY PARENT_PATH VEXO_HW_LINK_DIR)
else()
    target_link_libraries(vexo_hw INTERFACE vexo_sim_hw)
    set(VEXO_HW_LINK_DIR "")
endif()
