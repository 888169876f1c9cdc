// Random keys, as hexadecimal text.
#ifndef ZENTRAVA_TOOLS_RANDOM_KEY_H
#define ZENTRAVA_TOOLS_RANDOM_KEY_H

#include "failure.h"

#include <optional>
#include <string>

// 32 bytes of the operating system's random numbers.
std::optional<Failure> random_hmac_key(std::string* key);

// A private key of P-256, 1 to n - 1, without its public key, which takes far longer to compute.
std::optional<Failure> random_p256_scalar(std::string* key);

#endif
