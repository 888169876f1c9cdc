// A device identity with real keys of every kind, and what OpenSSL makes of them. A program that
// uses this is built with support/ecc_openssl.cpp.
#pragma once

#include "tests/support/key_user.h"
#include "tests/support/p256_key_pair.h"
#include "tests/support/slot_names.h"

#include <stdint.h>

#include <map>
#include <string>

inline Bytes hmac_under(const Bytes& key, const Bytes& msg)
{
    const Tag tag = openssl_hmac_sha256(key.data(), key.size(), msg.data(), msg.size());
    return {tag.begin(), tag.end()};
}

// A slot's two private keys.
struct Slot {
    P256KeyPair ecdsa;
    P256KeyPair ecdh;
};

// The numbers of a device's slots by what they are in key names.
inline const std::map<std::string, uint32_t> SLOT_NUMBERS = {
    {"0", 0}, {"3", 3}, {"5", 5}, {"-1", 0xffffffffU}};

struct Device {
    explicit Device(const std::string& its_uid) : uid(its_uid)
    {
        for (const auto& [decimal, number] : SLOT_NUMBERS) {
            slots[decimal] = {key_pair_named(ecdsa_slot_key(decimal)),
                              key_pair_named(ecdh_slot_key(decimal))};
        }
    }

    std::string uid;
    Bytes srk = made_up_key(uid, "srk");
    Bytes crk = made_up_key(uid, "crk");
    Bytes csk = made_up_key(uid, "csk");
    P256KeyPair ecdsa = key_pair_named("ecdsa_prv");
    P256KeyPair ecdh = key_pair_named("ecdh_prv");
    std::map<std::string, Slot> slots; // by their numbers in key names

    // The 32-byte keys of the private file by their names.
    std::map<std::string, Bytes> private_keys() const
    {
        std::map<std::string, Bytes> keys = {
            {"srk", srk},
            {"crk", crk},
            {"tmp_client_session_key", csk},
            {"ecdsa_prv", ecdsa.private_key},
            {"ecdh_prv", ecdh.private_key},
        };
        for (const auto& [decimal, slot] : slots) {
            keys[ecdsa_slot_key(decimal)] = slot.ecdsa.private_key;
            keys[ecdh_slot_key(decimal)] = slot.ecdh.private_key;
        }
        return keys;
    }

    std::string private_records() const
    {
        std::string records;
        for (const auto& [name, key] : private_keys()) {
            records += record(uid, name, std::to_string(records.size()), to_hex(key));
        }
        return records;
    }

    std::string public_records(const std::string& handle = "1") const
    {
        return record(uid, "ECDSA_DS_PuK", handle, to_hex(ecdsa.coordinates));
    }

    P256KeyPair key_pair_named(const std::string& name) const
    {
        return key_pair_of(made_up_key(uid, name));
    }
};
