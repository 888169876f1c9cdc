#include "key_names.h"

#include <stdlib.h>

const char* const VERIFICATION_KEY_NAME = "ECDSA_DS_PuK";

struct NamedUse {
    const char* name;
    KeyUse use;
    bool in_kts_slots; // also as "<name>_slot_<number>"
};
static const NamedUse NAMED_USES[] = {
    {"srk", {HMAC_KEY, 32}, false},
    {"crk", {HMAC_KEY, 32}, false},
    {"tmp_client_session_key", {HMAC_KEY, 32}, false},
    {"ecdsa_prv", {P256_PRIVATE_KEY, 32}, true},
    {"ecdh_prv", {P256_PRIVATE_KEY, 32}, true},
    {VERIFICATION_KEY_NAME, {P256_PUBLIC_KEY, 64}, false},
};

// A number that the driver would write otherwise ("07") makes a name that it never asks for.
static bool is_in_kts_slot(const std::string& key_name, const std::string& name)
{
    const std::string prefix = name + "_slot_";
    if (key_name.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    const long long number = strtoll(key_name.c_str() + prefix.size(), NULL, 10);
    return number >= INT32_MIN && number <= INT32_MAX &&
           key_name == name_in_kts_slot(name, static_cast<uint32_t>(number));
}

std::optional<KeyUse> driver_use_of(const std::string& key_name)
{
    for (const NamedUse& named : NAMED_USES) {
        if (key_name == named.name ||
            (named.in_kts_slots && is_in_kts_slot(key_name, named.name))) {
            return named.use;
        }
    }
    return std::nullopt;
}

bool has_kts_slots(const std::string& key_name)
{
    for (const NamedUse& named : NAMED_USES) {
        if (key_name == named.name) {
            return named.in_kts_slots;
        }
    }
    return false;
}

std::string name_in_kts_slot(const std::string& key_name, uint32_t slot)
{
    return key_name + "_slot_" + std::to_string(static_cast<int32_t>(slot));
}
