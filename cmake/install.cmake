# Installation: the shared library, the public headers, a CMake package
# (find_package(tavrin) gives tavrin::tavrin) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS tavrin EXPORT tavrinTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tavrin
                  ${PROJECT_SOURCE_DIR}/bus/include/quorl
                  ${PROJECT_SOURCE_DIR}/bus/include/stravik
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tavrinTargets NAMESPACE tavrin::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tavrin)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tavrinConfig.cmake.in
    ${PROJECT_BINARY_DIR}/tavrinConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tavrin)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tavrinConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tavrinConfig.cmake
              ${PROJECT_BINARY_DIR}/tavrinConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tavrin)

# The .pc file finds its prefix from its own location, so the package can be
# installed with any --prefix after configuration.
file(RELATIVE_PATH pc_to_prefix "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
set(pc_prefix "\${pcfiledir}/${pc_to_prefix}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/tavrin.pc.in ${PROJECT_BINARY_DIR}/tavrin.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavrin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
