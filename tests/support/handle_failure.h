// Lets the making of a new handle fail for want of room, which the store's own buffers never lack.
// Include this in place of the store's unit.
#pragma once

#include <string.h>

inline bool handles_seem_too_long = false;

inline size_t strlen_of_the_store(const char* text)
{
    const size_t length = strlen(text);
    return handles_seem_too_long && length < 16 ? 1000 : length;
}

#define strlen strlen_of_the_store
#include "key_driver/zentrava_key_management_utils.cpp"
#undef strlen
