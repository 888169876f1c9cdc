// Slot numbers and how they stand in key names: as signed decimals.
#pragma once

#include <stdint.h>

#include <ostream>
#include <string>

struct SlotName {
    uint32_t slot;
    const char* decimal;
};

inline std::ostream& operator<<(std::ostream& stream, const SlotName& name)
{
    return stream << "slot " << name.slot;
}

inline const SlotName SLOT_NAMES[] = {
    {0, "0"},
    {1, "1"},
    {10, "10"},
    {123456789, "123456789"},
    {0x7fffffffU, "2147483647"},
    {0x80000000U, "-2147483648"},
    {0x80000001U, "-2147483647"},
    {0xfffffff6U, "-10"},
    {0xffffffffU, "-1"},
};

inline std::string ecdsa_slot_key(const std::string& decimal)
{
    return "ecdsa_prv_slot_" + decimal;
}

inline std::string ecdh_slot_key(const std::string& decimal)
{
    return "ecdh_prv_slot_" + decimal;
}
