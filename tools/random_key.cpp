#include "random_key.h"

#include "p256_key_file.h"
#include "user_file.h"

#include <errno.h>
#include <string.h>
#include <sys/random.h>

static const size_t KEY_SIZE = 32;

// As few bytes as these come whole, unless a signal is caught.
static bool fill_random(uint8_t (&bytes)[KEY_SIZE])
{
    return getrandom(bytes, sizeof bytes, 0) == static_cast<ssize_t>(sizeof bytes);
}

static std::optional<Failure> random_key(bool (*is_good)(const uint8_t*), std::string* key)
{
    uint8_t bytes[KEY_SIZE];
    bool filled = fill_random(bytes);
    while (filled && !is_good(bytes)) {
        filled = fill_random(bytes);
    }
    if (!filled) {
        return Failure{FAILED, "", 0,
                       std::string("there are no random numbers: ") + strerror(errno),
                       "see to the system's random source"};
    }
    *key = hexadecimal(bytes, sizeof bytes);
    explicit_bzero(bytes, sizeof bytes);
    return std::nullopt;
}

std::optional<Failure> random_hmac_key(std::string* key)
{
    return random_key([](const uint8_t*) { return true; }, key);
}

// Drawn anew when out of range, so that every key is as likely as every other.
std::optional<Failure> random_p256_scalar(std::string* key)
{
    return random_key(p256_scalar_is_in_range, key);
}
