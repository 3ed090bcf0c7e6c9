include(CMakePackageConfigHelpers)

install(TARGETS vexo_zce_md EXPORT VexoZceMdTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT dev)
install(FILES include/VexoZceInstrument.h include/VexoZceMdApi.h include/VexoZceMdStats.h include/VexoZceMdStatsFile.h
              include/VexoZceMdStatsPage.h include/VexoZceSession.h include/VexoZceUtil.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# The simulated card: where no loader looks by itself, so that it is never mistaken for the card's own library.
install(TARGETS vexo_sim_hw LIBRARY DESTINATION ${VEXO_SIM_INSTALL_DIR} COMPONENT sim)
if(TARGET vexo_remote)
    install(TARGETS vexo_remote LIBRARY DESTINATION ${VEXO_SIM_INSTALL_DIR} COMPONENT sim)
endif()
if(TARGET vexo-simcard)
    install(TARGETS vexo-simcard RUNTIME COMPONENT sim)
endif()
install(DIRECTORY sim/include/enyx-sim DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT sim)
install(DIRECTORY sim/scenarios DESTINATION ${CMAKE_INSTALL_DATADIR}/vexo-sim COMPONENT sim)

# Linking an application resolves what the library itself needs; the stub does for that, without any card's library.
if(ENYX_HW_ROOT)
    set(VEXO_HW_RPATH_LINK ${VEXO_HW_LINK_DIR})
    set(VEXO_HW_RPATH_LINK_CMAKE ${VEXO_HW_LINK_DIR})
else()
    set(VEXO_HW_RPATH_LINK "\${prefix}/${VEXO_LINK_INSTALL_DIR}")
    set(VEXO_HW_RPATH_LINK_CMAKE "\${PACKAGE_PREFIX_DIR}/${VEXO_LINK_INSTALL_DIR}")
endif()

# The pkg-config file finds its prefix from where it lies itself; an absolute folder cannot move and stays as it is.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(VEXO_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
    file(RELATIVE_PATH VEXO_PREFIX_FROM_PC "${CMAKE_INSTALL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
else()
    set(VEXO_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    file(RELATIVE_PATH VEXO_PREFIX_FROM_PC "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
endif()
string(REGEX REPLACE "/$" "" VEXO_PREFIX_FROM_PC "${VEXO_PREFIX_FROM_PC}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(VEXO_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
    set(VEXO_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(cmake/vexo-zce-md.pc.in ${PROJECT_BINARY_DIR}/vexo-zce-md.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vexo-zce-md.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(VEXO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VexoZceMd)
install(EXPORT VexoZceMdTargets NAMESPACE VexoZceMd:: DESTINATION ${VEXO_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/VexoZceMdConfig.cmake.in ${PROJECT_BINARY_DIR}/VexoZceMdConfig.cmake
                              INSTALL_DESTINATION ${VEXO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VexoZceMdConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VexoZceMdConfig.cmake ${PROJECT_BINARY_DIR}/VexoZceMdConfigVersion.cmake
        DESTINATION ${VEXO_CMAKE_DIR} COMPONENT dev)
