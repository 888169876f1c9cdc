#include "user_file.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

static const char* const STANDARD_STREAM = "-";

std::string name_in_messages(const std::string& name)
{
    return name == STANDARD_STREAM ? "standard input" : name;
}

static Failure cannot(const char* what, const std::string& name)
{
    return {INPUT_OUTPUT, name_in_messages(name), 0, std::string(what) + ": " + strerror(errno),
            "see to its name and permissions"};
}

// Reads with the terminal's echo off, if it is a terminal.
static bool read_unseen(int fd, std::string* content)
{
    termios usual = {};
    const bool is_terminal = tcgetattr(fd, &usual) == 0;
    if (is_terminal) {
        termios unseen = usual;
        unseen.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(fd, TCSAFLUSH, &unseen);
    }
    const bool was_read = read_descriptor(fd, content);
    const int error = errno;
    if (is_terminal) {
        tcsetattr(fd, TCSAFLUSH, &usual);
    }
    errno = error;
    return was_read;
}

std::optional<Failure> read_user_file(const Common& common, const std::string& name,
                                      std::string* content)
{
    if (name == STANDARD_STREAM) {
        return read_unseen(STDIN_FILENO, content) ? std::nullopt
                                                  : std::optional(cannot("cannot be read", name));
    }
    const int fd = openat(common.start_directory, name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return cannot("cannot be opened", name);
    }
    std::optional<Failure> failure;
    if (!read_unseen(fd, content)) {
        failure = cannot("cannot be read", name);
    }
    close(fd);
    return failure;
}

std::optional<Failure> write_user_file(const Common& common, const std::string& name,
                                       const std::string& content, mode_t mode)
{
    const int fd =
        openat(common.start_directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0 && errno == EEXIST) {
        return Failure{REFUSED, name, 0, "is there already and is not overwritten",
                       "name another file"};
    }
    if (fd < 0) {
        return cannot("cannot be made", name);
    }
    std::optional<Failure> failure;
    if (!write_descriptor(fd, content)) {
        failure = cannot("cannot be written", name);
        remove_user_file(common, name);
    }
    close(fd);
    return failure;
}

void remove_user_file(const Common& common, const std::string& name)
{
    unlinkat(common.start_directory, name.c_str(), 0);
}

// ---------------------------------------------------------------------------------------------
// Keys
// ---------------------------------------------------------------------------------------------

static const char DIGITS[] = "0123456789abcdef";

std::string hexadecimal(const uint8_t* bytes, size_t size)
{
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text += DIGITS[bytes[i] >> 4];
        text += DIGITS[bytes[i] & 0x0F];
    }
    return text;
}

static int value_of(char digit)
{
    return static_cast<int>(strchr(DIGITS, tolower(digit)) - DIGITS);
}

void bytes_of_hexadecimal(const std::string& text, uint8_t* bytes)
{
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes[i / 2] = static_cast<uint8_t>(value_of(text[i]) << 4 | value_of(text[i + 1]));
    }
}

bool is_hexadecimal(const std::string& text)
{
    return text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

static Failure not_a_key(const std::string& name, int line, const std::string& cause,
                         const std::string& remedy)
{
    return {REFUSED, name_in_messages(name), line, cause, remedy};
}

static std::optional<Failure> key_of_text(const std::string& name, const std::string& content,
                                          std::string* key)
{
    key->reserve(content.size());
    int line = 1;
    for (char character : content) {
        line += character == '\n' ? 1 : 0;
        if (strchr(" \t\r\n", character) != NULL && character != '\0') {
            continue;
        }
        if (!is_hexadecimal(std::string(1, character))) {
            return not_a_key(name, line, "has a character that is no hexadecimal digit",
                             "say --raw if the file holds the key's bytes");
        }
        *key += character;
    }
    if (key->size() % 2 != 0) {
        return not_a_key(name, 0, "has an odd number of hexadecimal digits",
                         "give two digits for each byte");
    }
    return std::nullopt;
}

std::optional<Failure> read_key(const Common& common, const std::string& name, bool is_raw,
                                std::string* key)
{
    std::string content;
    if (std::optional<Failure> failure = read_user_file(common, name, &content)) {
        return failure;
    }
    if (is_raw) {
        *key = hexadecimal(reinterpret_cast<const uint8_t*>(content.data()), content.size());
        return std::nullopt;
    }
    return key_of_text(name, content, key);
}
