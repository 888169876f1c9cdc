# The CMake package of an installed tree: the target zentrava::keys, which is the shared library.
# The component "static" adds the target zentrava::keys_static, for which libxml2 and mbed TLS have to
# be installed as well.
include(CMakeFindDependencyMacro)
include("${CMAKE_CURRENT_LIST_DIR}/zentrava_keys-targets.cmake")

foreach(component IN LISTS zentrava_keys_FIND_COMPONENTS)
    set(file "${CMAKE_CURRENT_LIST_DIR}/zentrava_keys-${component}-targets.cmake")
    if(EXISTS "${file}")
        list(PREPEND CMAKE_MODULE_PATH "${CMAKE_CURRENT_LIST_DIR}") # for FindMbedCrypto
        find_dependency(LibXml2)
        find_dependency(MbedCrypto)
        find_dependency(Threads)
        list(POP_FRONT CMAKE_MODULE_PATH)
        include("${file}")
        set(zentrava_keys_${component}_FOUND ON)
    elseif(zentrava_keys_FIND_REQUIRED_${component})
        set(zentrava_keys_FOUND OFF)
        set(zentrava_keys_NOT_FOUND_MESSAGE "zentrava_keys is installed without '${component}'")
    endif()
endforeach()
