# Tests written in Python, of what is built as a whole: each test_* method of <area>_test.py becomes
# a test of CTest. They are told how the library was built, so that they can build with it.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
find_program(PKG_CONFIG_EXECUTABLE pkg-config REQUIRED)

set(everywhere_flags "")
if(CMAKE_SYSROOT)
    string(APPEND everywhere_flags " '--sysroot=${CMAKE_SYSROOT}'")
endif()
if(ZENTRAVA_SANITIZE)
    string(APPEND everywhere_flags " -fsanitize=${ZENTRAVA_SANITIZE} -fno-sanitize-recover=all")
endif()
string(REPLACE ";" "$<SEMICOLON>" emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
string(REPLACE ";" "$<SEMICOLON>" xml_libraries "${LIBXML2_LIBRARIES}")
set(tool "")
set(key_user "")
set(memory_scan "")
if(ZENTRAVA_BUILD_TOOLS)
    set(tool "$<TARGET_FILE:zentrava-keystore>")
    set(key_user "$<TARGET_FILE:tool_key_user>")
    set(memory_scan "$<TARGET_FILE:memory_scan>")
endif()
set(build_under_test
    "--source=${PROJECT_SOURCE_DIR}"
    "--build=${PROJECT_BINARY_DIR}"
    "--library=$<TARGET_FILE:zentrava_keys>"
    "--tool=${tool}"
    "--key-user=${key_user}"
    "--memory-scan=${memory_scan}"
    "--cmake=${CMAKE_COMMAND}"
    "--toolchain=${CMAKE_TOOLCHAIN_FILE}"
    "--emulator=${emulator}"
    "--pkg-config=${PKG_CONFIG_EXECUTABLE}"
    "--nm=${CMAKE_NM}"
    "--readelf=${CMAKE_READELF}"
    "--cc=${CMAKE_C_COMPILER}"
    "--cxx=${CMAKE_CXX_COMPILER}"
    "--c-flags=${CMAKE_C_FLAGS}${everywhere_flags}"
    "--cxx-flags=${CMAKE_CXX_FLAGS}${everywhere_flags}"
    "--include-dirs=${LIBXML2_INCLUDE_DIR}$<SEMICOLON>${MBEDCRYPTO_INCLUDE_DIR}"
    "--libraries=${xml_libraries}$<SEMICOLON>${MBEDCRYPTO_LIBRARY}")

function(zentrava_add_python_test area)
    if(ZENTRAVA_COVERAGE) # is of the library's units, not of what is built as a whole
        return()
    endif()
    set(script "${CMAKE_CURRENT_SOURCE_DIR}/${area}_test.py")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${script}")
    file(STRINGS "${script}" methods REGEX "^    def test_")
    foreach(method IN LISTS methods)
        string(REGEX REPLACE "^ *def test_([a-z0-9_]*).*" "\\1" sentence "${method}")
        set(test "${area}.${sentence}")
        add_test(NAME "${test}"
            COMMAND "${Python3_EXECUTABLE}" -B "${script}" ${build_under_test} "${sentence}")
        set_tests_properties("${test}" PROPERTIES
            LABELS "${area}"
            TIMEOUT 300
            SKIP_REGULAR_EXPRESSION "skipped="
            # What the toolchain file was given when this build was configured.
            ENVIRONMENT "ZENTRAVA_ARMHF_SYSROOT=${ZENTRAVA_ARMHF_SYSROOT}")
    endforeach()
endfunction()
