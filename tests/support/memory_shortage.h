// A call while memory runs out, and what it left behind. A program that uses this is built with
// support/failing_allocation.cpp.
#pragma once

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/failing_allocation.h"

#include <gtest/gtest.h>

#include <mbedtls/md.h>

#include <stddef.h>
#include <stdlib.h>

#include <ostream>
#include <set>
#include <string>
#include <vector>

// Whether one allocation fails, or every one from there on.
inline std::string name_of(Failing failing)
{
    return failing == Failing::ONE_ALLOCATION ? "OneFails" : "AllFailFromThereOn";
}

inline std::ostream& operator<<(std::ostream& stream, Failing failing)
{
    return stream << name_of(failing);
}

// What a call did while its k-th allocation failed.
struct Attempt {
    unsigned int k;
    KeyLibraryErrorCode result;
    std::string printed;
    std::string printed_on_stderr;
    Allocations made;

    // Whether there was memory for everything.
    bool had_enough() const
    {
        return !made.any_failed;
    }
};

template <typename Call> Attempt attempt(unsigned int k, Failing failing, Call call)
{
    Attempt attempt = {};
    attempt.k = k;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    attempt.made = failing_allocation(
        k, [&] { attempt.result = call(); }, failing);
    attempt.printed_on_stderr = testing::internal::GetCapturedStderr();
    attempt.printed = testing::internal::GetCapturedStdout();
    return attempt;
}

// The blocks that are left, less those that mbed TLS never gets back, deliberately, and those that
// libxml2 loses when its decompressor runs out of memory. The latter are freed here.
inline std::set<const void*> left_by_library(const Allocations& made)
{
    std::set<const void*> left;
    for (const Block& block : made.left) {
        if (is_block_of(block, "liblzma")) {
            free(block.address);
        } else if (!is_block_of(block, "libmbedcrypto")) {
            left.insert(block.address);
        }
    }
    return left;
}

// The sizes of the blocks that mbed TLS asks for when it sets an HMAC up.
inline std::vector<size_t> allocations_of_mbedtls()
{
    mbedtls_md_context_t hmac;
    mbedtls_md_init(&hmac);
    const mbedtls_md_info_t* sha256 = mbedtls_md_info_from_type(MBEDTLS_MD_SHA256);
    const Allocations made = allocations_of([&] { mbedtls_md_setup(&hmac, sha256, 1); });
    mbedtls_md_free(&hmac);
    return made.requested;
}

inline const char* const HMAC_SETUP_WITHOUT_MEMORY = "  ! mbedtls_md_setup() returned -0x5180\n";
