// A C++ program that uses the library: a session key, and the tag of a message under it. It puts
// the key store into the directory that it runs in.
#include <key_driver/zentrava_key_driver.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>

static const char* const UID = "0123456789abcdef0123456789abcdef";
static const char* const SRK_TEXT =
    "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebf";
static const std::array<uint8_t, 6> AMTC0 = {1, 2, 3, 4, 5, 6};
static const std::string MESSAGE = "sent by a C++ program";

// printf '\001\002\003\004\005\006' | openssl dgst -sha256 -mac hmac -macopt hexkey:<SRK_TEXT>
// printf 'sent by a C++ program' | openssl dgst -sha256 -mac hmac -macopt hexkey:<what that gave>
static const std::string TAG_TEXT =
    "63b01098cbe5246beee95ab401f311572472fd69babc4d4aa836a80c605fbc7b";

static void write_store_files()
{
    std::ofstream("key_contents_prv.xml")
        << "<keys><key_content><uid>" << UID << "</uid><key_name>srk</key_name><handle>1</handle>"
        << "<key>" << SRK_TEXT << "</key></key_content></keys>\n";
    std::ofstream("key_contents_pub.xml") << "<keys/>\n";
}

static bool is_ok(const char* step, KeyLibraryErrorCode result)
{
    if (result != KeyLibrary_OK) {
        std::printf("%s: result %d\n", step, static_cast<int>(result));
    }
    return result == KeyLibrary_OK;
}

static std::string hexadecimal(const std::array<uint8_t, 32>& bytes)
{
    std::string text;
    for (uint8_t byte : bytes) {
        text += "0123456789abcdef"[byte / 16];
        text += "0123456789abcdef"[byte % 16];
    }
    return text;
}

int main()
{
    write_store_files();
    KeyLibraryContext context;
    uint8_t* context_buf = reinterpret_cast<uint8_t*>(&context);
    const uint8_t* message = reinterpret_cast<const uint8_t*>(MESSAGE.data());
    const uint32_t message_len = static_cast<uint32_t>(MESSAGE.size());
    std::array<uint8_t, 32> tag = {};

    const bool done =
        is_ok("key_lib_open", key_lib_open(UID, nullptr, nullptr, context_buf)) &&
        is_ok("set_srk", set_srk_as_hmac_root_signing_key(context_buf, false)) &&
        is_ok("derive", derive_hmac_session_key(context_buf, AMTC0.data(), AMTC0.size(), false)) &&
        is_ok("gen_session",
              gen_session_sha256_hmac(context_buf, message, message_len, tag.data())) &&
        is_ok("key_lib_close", key_lib_close(context_buf));
    if (done && hexadecimal(tag) != TAG_TEXT) {
        std::printf("tag:  %s\nnot:  %s\n", hexadecimal(tag).c_str(), TAG_TEXT.c_str());
    }
    return done && hexadecimal(tag) == TAG_TEXT ? 0 : 1;
}
