// A device identity whose keys a thread uses all the time, and what OpenSSL makes of these keys.
#pragma once

#include "key_driver/zentrava_key_driver.h"
#include "key_driver/zentrava_key_management_utils.h"
#include "tests/support/bytes.h"
#include "tests/support/context_record.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/store_directory.h"

#include <gtest/gtest.h>

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

inline const std::vector<Bytes> MESSAGES = {bytes_of("?"), counting_from(1, 32),
                                            counting_from(2, 33), counting_from(3, 300)};
inline const std::vector<Bytes> AMTC0_VALUES = {counting_from(0, 1), counting_from(0, 2),
                                                counting_from(7, 3), counting_from(8, 4),
                                                counting_from(0, 5), counting_from(250, 6)};

using Tags = std::vector<Tag>; // one for each message

inline Tags tags_under(const Bytes& key)
{
    Tags tags;
    for (const Bytes& message : MESSAGES) {
        tags.push_back(openssl_hmac_sha256(key.data(), key.size(), message.data(), message.size()));
    }
    return tags;
}

// The tags under the session keys that the AMTC0 values give, one after the other.
inline std::vector<Tags> session_tags_under(const Bytes& root_key)
{
    std::vector<Tags> tags;
    for (const Bytes& amtc0 : AMTC0_VALUES) {
        const Tag session_key =
            openssl_hmac_sha256(root_key.data(), root_key.size(), amtc0.data(), amtc0.size());
        tags.push_back(tags_under({session_key.begin(), session_key.end()}));
    }
    return tags;
}

// 32 bytes that no other identity and no other name has.
inline Bytes made_up_key(const std::string& uid, const std::string& name)
{
    const Tag key = openssl_hmac_sha256(uid.data(), uid.size(), name.data(), name.size());
    return {key.begin(), key.end()};
}

struct KeyUser {
    explicit KeyUser(const std::string& its_uid) : uid(its_uid)
    {
        const Bytes y = made_up_key(uid, "Y");
        ecdsa_point.insert(ecdsa_point.end(), x.begin(), x.end());
        ecdsa_point.insert(ecdsa_point.end(), y.begin(), y.end());
    }

    std::string uid;
    Bytes srk = made_up_key(uid, "srk");
    Bytes crk = made_up_key(uid, "crk");
    Bytes csk = made_up_key(uid, "csk");
    Bytes ecdsa_prv = made_up_key(uid, "ecdsa_prv");
    Bytes x = made_up_key(uid, "X");
    Bytes ecdsa_point = {0x04};

    Tags srk_tags = tags_under(srk);
    Tags crk_tags = tags_under(crk);
    Tags csk_tags = tags_under(csk);
    std::vector<Tags> srk_session_tags = session_tags_under(srk);
    std::vector<Tags> crk_session_tags = session_tags_under(crk);

    std::string private_records() const
    {
        return record(uid, "srk", "1" + uid, to_hex(srk), "root of " + uid) +
               record(uid, "crk", "2" + uid, to_hex(crk)) +
               record(uid, "tmp_client_session_key", "3" + uid, to_hex(csk)) +
               record(uid, "ecdsa_prv", "4" + uid, to_hex(ecdsa_prv));
    }

    std::string public_records() const
    {
        const Bytes coordinates(ecdsa_point.begin() + 1, ecdsa_point.end());
        return record(uid, "ECDSA_DS_PuK", "5" + uid, to_hex(coordinates), "point of " + uid);
    }
};

// How the library makes and checks tags, with the root key or with the session key.
struct TagFunctions {
    decltype(&gen_root_sha256_hmac) make;
    decltype(&verify_root_sha256_hmac) verify;
};
inline const TagFunctions ROOT = {gen_root_sha256_hmac, verify_root_sha256_hmac};
inline const TagFunctions SESSION = {gen_session_sha256_hmac, verify_session_sha256_hmac};

inline void expect_tags(const uint8_t* context_buf, const TagFunctions& functions,
                        const Tags& expected)
{
    for (size_t i = 0; i < MESSAGES.size(); ++i) {
        const Bytes& message = MESSAGES[i];
        const uint32_t len = static_cast<uint32_t>(message.size());
        Tag tag = {};
        ASSERT_EQ(functions.make(context_buf, message.data(), len, tag.data()), KeyLibrary_OK);
        ASSERT_EQ(tag, expected[i]);

        bool verified = false;
        ASSERT_EQ(functions.verify(context_buf, message.data(), len, tag.data(), &verified),
                  KeyLibrary_OK);
        ASSERT_TRUE(verified);
        tag[i] ^= 0x80;
        ASSERT_EQ(functions.verify(context_buf, message.data(), len, tag.data(), &verified),
                  KeyLibrary_OK);
        ASSERT_FALSE(verified);
    }
}

inline void expect_session_keys(const uint8_t* context_buf, size_t round,
                                const std::vector<Tags>& expected)
{
    for (const size_t i : {round % AMTC0_VALUES.size(), (round + 1) % AMTC0_VALUES.size()}) {
        const Bytes& amtc0 = AMTC0_VALUES[i];
        ASSERT_EQ(derive_hmac_session_key(context_buf, amtc0.data(),
                                          static_cast<uint32_t>(amtc0.size()), false),
                  KeyLibrary_OK);
        expect_tags(context_buf, SESSION, expected[i]);
    }
}

inline void expect_ecdsa_keys(uint8_t* context_buf, const KeyUser& user)
{
    ASSERT_EQ(set_ecdsa_signing_key(context_buf, true), KeyLibrary_OK);
    ASSERT_EQ(set_ecdsa_verification_key(context_buf, true), KeyLibrary_OK);
    const ContextRecord& context = *record_of(context_buf);
    ASSERT_EQ(bytes_at(context.ecdsa_signing_key, 32), user.ecdsa_prv);
    ASSERT_EQ(bytes_at(context.ecdsa_verification_key, 65), user.ecdsa_point);
}

inline void expect_handle(const KeyUser& user, const char* key_name, const std::string& handle,
                          const std::string& metadata)
{
    char handle_text[64] = "";
    char metadata_text[64] = "";
    ASSERT_EQ(get_key_handle(user.uid.c_str(), key_name, metadata_text, sizeof metadata_text,
                             handle_text, sizeof handle_text),
              0u);
    ASSERT_EQ(handle_text, handle);
    ASSERT_EQ(metadata_text, metadata);
}

// Everything that a context can do with the keys, from opening it to closing it. The AMTC0 values
// change with the round.
inline void use_keys(const KeyUser& user, size_t round)
{
    KeyLibraryContext context = nullptr;
    uint8_t* context_buf = reinterpret_cast<uint8_t*>(&context);
    ASSERT_EQ(key_lib_open(user.uid.c_str(), nullptr, nullptr, context_buf), KeyLibrary_OK);

    ASSERT_EQ(set_srk_as_hmac_root_signing_key(context_buf, false), KeyLibrary_OK);
    expect_tags(context_buf, ROOT, user.srk_tags);
    expect_session_keys(context_buf, round, user.srk_session_tags);
    ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf, true), KeyLibrary_OK);
    expect_tags(context_buf, SESSION, user.csk_tags);
    expect_ecdsa_keys(context_buf, user);

    ASSERT_EQ(key_lib_clear_keys(context_buf), KeyLibrary_OK);
    Tag tag;
    ASSERT_EQ(gen_root_sha256_hmac(context_buf, MESSAGES[0].data(), 1, tag.data()),
              KeyLibrary_KEY_NOT_FOUND);

    ASSERT_EQ(set_crk_as_hmac_root_signing_key(context_buf, false), KeyLibrary_OK);
    expect_tags(context_buf, ROOT, user.crk_tags);
    expect_session_keys(context_buf, round + 3, user.crk_session_tags);
    ASSERT_EQ(key_lib_close(context_buf), KeyLibrary_OK);
}
