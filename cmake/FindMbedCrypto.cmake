# Finds the crypto library of mbed TLS, for which Debian 12 brings neither a CMake package nor a
# pkg-config file. Defines the target MbedCrypto::MbedCrypto.
find_path(MBEDCRYPTO_INCLUDE_DIR mbedtls/md.h)
find_library(MBEDCRYPTO_LIBRARY mbedcrypto)
mark_as_advanced(MBEDCRYPTO_INCLUDE_DIR MBEDCRYPTO_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(MbedCrypto DEFAULT_MSG MBEDCRYPTO_LIBRARY MBEDCRYPTO_INCLUDE_DIR)

if(MbedCrypto_FOUND AND NOT TARGET MbedCrypto::MbedCrypto)
    add_library(MbedCrypto::MbedCrypto UNKNOWN IMPORTED)
    set_target_properties(MbedCrypto::MbedCrypto PROPERTIES
        IMPORTED_LOCATION "${MBEDCRYPTO_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${MBEDCRYPTO_INCLUDE_DIR}")
endif()
