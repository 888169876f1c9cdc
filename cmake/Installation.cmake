# What `cmake --install` puts where. Nothing in it depends on the place: the CMake package and the
# pkg-config file find the rest of the tree relative to themselves, wherever it is installed or moved.
#
# Every rule names one of four components, each of which is a binary package: runtime, development,
# tools (the rules are in tools/) and documentation.
include(CMakePackageConfigHelpers)

set(zentrava_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/zentrava_keys")
set(zentrava_pkgconfig_private "")

install(TARGETS zentrava_keys EXPORT zentrava_keys_targets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES
    key_driver/zentrava_key_driver.h
    key_driver/zentrava_key_management_utils.h
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zentrava/key_driver"
    COMPONENT development)
install(FILES ecc/ecc.h
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zentrava/ecc"
    COMPONENT development)

# Whoever links the static library links its dependencies as well, and has to find them. The shared
# library asks its users for nothing.
if(ZENTRAVA_BUILD_STATIC)
    install(TARGETS zentrava_keys_static EXPORT zentrava_keys_static_targets
        ARCHIVE COMPONENT development)
    install(EXPORT zentrava_keys_static_targets
        FILE zentrava_keys-static-targets.cmake
        NAMESPACE zentrava::
        DESTINATION "${zentrava_package_dir}"
        COMPONENT development)
    install(FILES cmake/FindMbedCrypto.cmake
        DESTINATION "${zentrava_package_dir}"
        COMPONENT development)
    set(zentrava_pkgconfig_private
        "Requires.private: libxml-2.0\nLibs.private: -lmbedcrypto -pthread\n")
endif()

install(EXPORT zentrava_keys_targets
    FILE zentrava_keys-targets.cmake
    NAMESPACE zentrava::
    DESTINATION "${zentrava_package_dir}"
    COMPONENT development)
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/zentrava_keys-config-version.cmake" COMPATIBILITY SameMajorVersion)
install(FILES
    cmake/zentrava_keys-config.cmake
    "${PROJECT_BINARY_DIR}/zentrava_keys-config-version.cmake"
    DESTINATION "${zentrava_package_dir}"
    COMPONENT development)

install(FILES docs/man/zentrava-keys.3
    DESTINATION "${CMAKE_INSTALL_MANDIR}/man3"
    COMPONENT development)

set(zentrava_pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
set(zentrava_include_dir "${CMAKE_INSTALL_INCLUDEDIR}/zentrava")
cmake_path(ABSOLUTE_PATH zentrava_pkgconfig_dir BASE_DIRECTORY /prefix OUTPUT_VARIABLE from)
cmake_path(ABSOLUTE_PATH zentrava_include_dir BASE_DIRECTORY /prefix OUTPUT_VARIABLE to)
cmake_path(RELATIVE_PATH to BASE_DIRECTORY "${from}" OUTPUT_VARIABLE zentrava_include_from_pkgconfig)
configure_file(cmake/zentrava_keys.pc.in zentrava_keys.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/zentrava_keys.pc"
    DESTINATION "${zentrava_pkgconfig_dir}"
    COMPONENT development)

install(FILES README.md CHANGELOG.md SECURITY.md
    DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    COMPONENT documentation)
install(DIRECTORY docs
    DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    COMPONENT documentation
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.[ch]" PATTERN "*.cpp"
    PATTERN man EXCLUDE)
install(DIRECTORY examples
    DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    COMPONENT documentation
    FILES_MATCHING PATTERN "*.[ch]" PATTERN "*.cpp" PATTERN "CMakeLists.txt")
install(FILES cmake/armhf.cmake
    DESTINATION "${CMAKE_INSTALL_DOCDIR}/cmake"
    COMPONENT documentation)
# What scripts/doc makes, if it has been run.
install(DIRECTORY build/doc/html
    DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    COMPONENT documentation
    OPTIONAL)
