include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS zlk_shared zlk_static
    EXPORT zlkTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/zlk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT zlkTargets NAMESPACE zlk:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zlk)

configure_package_config_file(cmake/zlkConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/zlkConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zlk)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zlkConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zlkConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/zlkConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zlk)

configure_file(cmake/zlk.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zlk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zlk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
