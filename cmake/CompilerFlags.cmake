# Compiler and linker flags, each set by a name that says what it is for.

# Everything that is compiled here, tests and examples included.
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(ZENTRAVA_WARNINGS_AS_ERRORS)
    add_compile_options(-Werror)
endif()
if(ZENTRAVA_SANITIZE)
    add_compile_options(-fsanitize=${ZENTRAVA_SANITIZE} -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ZENTRAVA_SANITIZE})
endif()
# What counts is the library's code, not that of the tests beside which it is compiled.
if(ZENTRAVA_COVERAGE)
    add_compile_options(-fprofile-instr-generate -fcoverage-mapping -fcoverage-mcdc
        "-fprofile-list=${PROJECT_SOURCE_DIR}/cmake/coverage.list"
        -Wno-unknown-pragmas) # GCC's way to have loops unrolled
    add_link_options(-fprofile-instr-generate)
endif()
# Assertions and debug information name sources from the root of the tree, not the build machine's
# directories.
add_compile_options("-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")

# The library itself: hardening after the OpenSSF guide for C and C++, as far as GCC 12 has it.
# _FORTIFY_SOURCE needs an optimising build, and does not go together with the sanitizers.
function(zentrava_product_flags target)
    target_compile_options(${target} PRIVATE
        -fstack-protector-strong -fstack-clash-protection
        -Wformat=2 -Wimplicit-fallthrough -Werror=format-security)
    target_compile_definitions(${target} PRIVATE _GLIBCXX_ASSERTIONS)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
        target_compile_options(${target} PRIVATE -fcf-protection=full)
    endif()
    if(NOT ZENTRAVA_SANITIZE)
        target_compile_options(${target} PRIVATE
            $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>)
        target_link_options(${target} PRIVATE LINKER:-z,defs)
    endif()
    # The library is C++ without a need for the C++ runtime, so --as-needed leaves that out.
    target_link_options(${target} PRIVATE
        LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:--as-needed)
endfunction()
