// The key names that the key driver loads, and what it requires of the keys under them.
#ifndef ZENTRAVA_TOOLS_KEY_NAMES_H
#define ZENTRAVA_TOOLS_KEY_NAMES_H

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>

enum KeyKind { HMAC_KEY, P256_PRIVATE_KEY, P256_PUBLIC_KEY };

struct KeyUse {
    KeyKind kind;
    size_t length; // in bytes; the driver refuses every other one
};

// The verification key: the one public key that the driver loads.
extern const char* const VERIFICATION_KEY_NAME;

// How the driver uses a key of this name; none for a name of the user's own.
std::optional<KeyUse> driver_use_of(const std::string& key_name);

// Whether this is the name of a key of a KTS slot before its number: "ecdsa_prv" or "ecdh_prv".
bool has_kts_slots(const std::string& key_name);

// The key's name in a KTS slot. The driver writes slot numbers as signed decimals: slot 4294967295
// has the keys "..._slot_-1".
std::string name_in_kts_slot(const std::string& key_name, uint32_t slot);

#endif
