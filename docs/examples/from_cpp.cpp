// The library from C++.
#include "example_store.h"

#include <key_driver/zentrava_key_driver.h>

#include <array>
#include <string>

// [from C++]
static bool from_cpp()
{
    const std::string text = "Set valve 7 to 40 percent";
    const uint8_t* msg = reinterpret_cast<const uint8_t*>(text.data());
    const uint32_t msg_len = static_cast<uint32_t>(text.size());
    std::array<uint8_t, 32> tag = {};
    KeyLibraryContext context = nullptr;
    uint8_t* context_buf = reinterpret_cast<uint8_t*>(&context);

    if (key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf) != KeyLibrary_OK) {
        return false;
    }
    KeyLibraryErrorCode code = set_srk_as_hmac_root_signing_key(context_buf, false);
    if (code == KeyLibrary_OK) {
        code = gen_root_sha256_hmac(context_buf, msg, msg_len, tag.data());
    }
    key_lib_close(context_buf);
    return code == KeyLibrary_OK &&
           is_equal(tag.data(), "b06a07c5f67e45bc931b974ffc55d99d8f8470f65528c5d95269f531abff639f");
}
// [from C++]

int main()
{
    return run("from C++", from_cpp) ? 0 : 1;
}
