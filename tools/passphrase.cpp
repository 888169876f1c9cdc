#include "passphrase.h"

#include "text_output.h"
#include "user_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>

static void keep_first_line(std::string* text)
{
    text->erase(std::min(text->find_first_of("\r\n"), text->size()));
}

std::optional<Failure> read_passphrase(const Common& common, const std::string& file_name,
                                       std::string* passphrase)
{
    if (std::optional<Failure> failure = read_user_file(common, file_name, passphrase)) {
        return failure;
    }
    keep_first_line(passphrase);
    return std::nullopt;
}

// A terminal gives one line for each read.
static bool read_line(int fd, std::string* line)
{
    char buffer[1024];
    ssize_t count = 0;
    do {
        count = read(fd, buffer, sizeof buffer);
    } while (count < 0 && errno == EINTR);
    line->assign(buffer, count > 0 ? static_cast<size_t>(count) : 0);
    explicit_bzero(buffer, sizeof buffer);
    return count > 0;
}

// The echo is off before the question is seen, and without that it is not asked. Signals from the
// keyboard are off as well, so that none ends the process with the echo off.
static bool ask_unseen(int terminal, const std::string& question, std::string* answer)
{
    termios usual = {};
    if (tcgetattr(terminal, &usual) != 0) {
        return false;
    }
    termios unseen = usual;
    unseen.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
    if (tcsetattr(terminal, TCSAFLUSH, &unseen) != 0) {
        return false;
    }
    dprintf(terminal, "%s", question.c_str());
    const bool was_read = read_line(terminal, answer);
    dprintf(terminal, "\n");
    tcsetattr(terminal, TCSAFLUSH, &usual);
    return was_read;
}

static Failure no_passphrase(const std::string& key_file, const char* why)
{
    return {REFUSED, key_file, 0, std::string("the private key is encrypted, and ") + why,
            "give the passphrase with --passphrase-file"};
}

std::optional<Failure> ask_for_passphrase(const std::string& key_file, std::string* passphrase)
{
    const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0) {
        return no_passphrase(key_file, "there is no terminal to ask for its passphrase");
    }
    const bool was_read =
        ask_unseen(terminal, "Passphrase of " + printable(key_file) + ": ", passphrase);
    close(terminal);
    keep_first_line(passphrase);
    return was_read ? std::nullopt
                    : std::optional(no_passphrase(key_file, "no passphrase was given"));
}
