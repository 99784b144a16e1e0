# What "cmake --install" puts under the prefix: headers, libraries, pkg-config file, CMake package.

include(CMakePackageConfigHelpers)

install(TARGETS greirige greirige_static greirige_cpp EXPORT greirigeTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/ldapx.h include/ldap_events.h include/greirige.hpp
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/greirige DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT greirigeTargets NAMESPACE greirige::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/greirige)

configure_package_config_file(cmake/greirigeConfig.cmake.in greirigeConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/greirige)
write_basic_package_version_file(greirigeConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/greirigeConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/greirigeConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/greirige)

file(RELATIVE_PATH GREIRIGE_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/greirige.pc.in greirige.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/greirige.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
