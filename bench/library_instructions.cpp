// Executed instructions of the key store's operations and of an HMAC, each beside those of the work
// by libxml2 or mbed TLS that it consists of. Run under qemu-user with the plugin
// count_instructions.c. The output, on standard error, is a line for each measurement: what was done,
// the size, "operation" or "floor", and the count.

#include "measured_stores.h"

#include "key_driver/zentrava_key_driver.h"

#include <mbedtls/md.h>

#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

// Takes the place of the C library's, by which libxml2 seeds its hash tables anew each time: counts
// would differ by a tenth from document to document.
extern "C" int rand_r(unsigned int*)
{
    return 1;
}

// System calls that do not exist, and do nothing but tell the plugin.
static const long START_MARK = 0x7001;
static const long STOP_MARK = 0x7002;

// The plugin ends the line.
template <typename Work>
static bool count(const char* name, size_t size, const char* side, Work work)
{
    fprintf(stderr, "%s %zu %s ", name, size, side);
    syscall(START_MARK);
    const bool succeeded = work();
    syscall(STOP_MARK);
    return succeeded;
}

static bool count_store_operations(int size)
{
    const std::string last_name = "key" + std::to_string(size);
    for (const MeasuredOperation& operation : MEASURED_OPERATIONS) {
        for (const char* const side : {"operation", "floor"}) {
            const bool is_floor = side[0] == 'f';
            const auto work = is_floor ? operation.floor : operation.run;
            // What the C library and libxml2 do but once is done before.
            if (!work(last_name.c_str()) || !count(operation.name, static_cast<size_t>(size), side,
                                                   [&] { return work(last_name.c_str()); })) {
                fprintf(stderr, "%s failed\n", operation.name);
                return false;
            }
        }
    }
    return true;
}

static const uint8_t KEY[32] = {1, 2, 3};

// HMAC-SHA256 in pieces of 32 bytes, straight through mbed TLS.
static bool hmac_by_mbedtls(const std::vector<uint8_t>& msg, uint8_t (&tag)[32])
{
    mbedtls_md_context_t context;
    mbedtls_md_init(&context);
    bool succeeded =
        mbedtls_md_setup(&context, mbedtls_md_info_from_type(MBEDTLS_MD_SHA256), 1) == 0 &&
        mbedtls_md_hmac_starts(&context, KEY, sizeof KEY) == 0;
    for (size_t done = 0; succeeded && done < msg.size(); done += 32) {
        succeeded = mbedtls_md_hmac_update(&context, msg.data() + done, 32) == 0;
    }
    return succeeded && mbedtls_md_hmac_finish(&context, tag) == 0;
}

static bool count_hmac(size_t size)
{
    const std::vector<uint8_t> msg(size, 0x5A);
    uint8_t tag[32];
    const auto operation = [&] {
        return _sha256_hmac(KEY, sizeof KEY, msg.data(), static_cast<int>(size), tag) ==
               KeyLibrary_OK;
    };
    const auto floor = [&] {
        return hmac_by_mbedtls(msg, tag);
    };
    return operation() && floor() && count("_sha256_hmac", size, "operation", operation) &&
           count("_sha256_hmac", size, "floor", floor);
}

int main()
{
    const std::filesystem::path stores = make_store_directory();
    bool succeeded = true;
    for (const size_t size : {size_t{32}, size_t{1024}, size_t{1048576}}) {
        succeeded = succeeded && count_hmac(size);
    }
    for (const int size : {10, 1000, 10000, 100000}) {
        enter_store(stores / std::to_string(size), size);
        succeeded = succeeded && count_store_operations(size);
    }
    std::filesystem::current_path("/");
    std::filesystem::remove_all(stores);
    return succeeded ? 0 : 1;
}
