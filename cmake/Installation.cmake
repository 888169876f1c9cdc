# What `cmake --install` puts where. Nothing in it depends on the place: the CMake package and the
# pkg-config file find the rest of the tree relative to themselves, wherever it is installed or moved.
include(CMakePackageConfigHelpers)

install(TARGETS zentrava_keys EXPORT zentrava_keys_targets)
install(FILES
    key_driver/zentrava_key_driver.h
    key_driver/zentrava_key_management_utils.h
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zentrava/key_driver")
install(FILES ecc/ecc.h DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zentrava/ecc")

set(zentrava_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/zentrava_keys")
install(EXPORT zentrava_keys_targets
    FILE zentrava_keys-config.cmake
    NAMESPACE zentrava::
    DESTINATION "${zentrava_package_dir}")
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/zentrava_keys-config-version.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/zentrava_keys-config-version.cmake"
    DESTINATION "${zentrava_package_dir}")

install(FILES docs/man/zentrava-keys.3 DESTINATION "${CMAKE_INSTALL_MANDIR}/man3")

set(zentrava_pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
set(zentrava_include_dir "${CMAKE_INSTALL_INCLUDEDIR}/zentrava")
cmake_path(ABSOLUTE_PATH zentrava_pkgconfig_dir BASE_DIRECTORY /prefix OUTPUT_VARIABLE from)
cmake_path(ABSOLUTE_PATH zentrava_include_dir BASE_DIRECTORY /prefix OUTPUT_VARIABLE to)
cmake_path(RELATIVE_PATH to BASE_DIRECTORY "${from}" OUTPUT_VARIABLE zentrava_include_from_pkgconfig)
configure_file(cmake/zentrava_keys.pc.in zentrava_keys.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/zentrava_keys.pc" DESTINATION "${zentrava_pkgconfig_dir}")
