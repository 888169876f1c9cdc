// The file functions of the C library in a test's hands: each call is written down, and one of them
// can end the process, fail, or do half of its work.
//
// What support/system_calls.cpp defines takes precedence over the C library's in every shared
// library of the process, so libxml2's calls take part. A stream that is opened for writing is
// replaced by one that opens, writes and closes its file through here. Calls are taken note of in
// the scope that a test asks for, and in one thread.
//
// A program that uses this is built with support/system_calls.cpp and WRAP ${durable_save}.
#pragma once

#include <stddef.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

enum class Meddling {
    NONE,
    KILL_BEFORE, // the process ends by SIGKILL, and the call is not made
    KILL_AFTER,  // it ends when the call is done
    FAIL,        // the call does nothing and reports the error; close does close
    FAIL_FROM_THERE_ON,
    HALF,           // half of the bytes are written, or read
    HALF_THEN_FAIL, // and the next call of the same name fails
    NOTHING         // the call does nothing and reports success: no byte was read or written
};

struct Interference {
    size_t at; // the call that is meddled with, counted from 1
    Meddling meddling;
    int error;
};
inline const Interference NO_INTERFERENCE = {0, Meddling::NONE, 0};

enum class Scope {
    EVERYTHING, // but for the calls that only read what is there
    EVERYTHING_AND_READING,
    SAVES // what happens inside durable_save
};

struct SystemCall {
    std::string name;
    std::string path; // of the file; that of the descriptor as /proc tells it

    bool is(const std::string& its_name, const std::string& end_of_path) const
    {
        return name == its_name && path.size() >= end_of_path.size() &&
               path.compare(path.size() - end_of_path.size(), std::string::npos, end_of_path) == 0;
    }
    bool writes() const // takes a count of bytes that can come short
    {
        return name == "write" || name == "pwrite" || name == "fallocate";
    }
    std::string text() const
    {
        return name + " " + path;
    }
};
using SystemCalls = std::vector<SystemCall>;

// From now on, every watched call of this name fails with this error. Errors stay until
// accept_system_calls is called.
void refuse_system_calls(const std::string& name, int error);
void accept_system_calls();

// To be run after each watched call; an empty function for nothing. Its own calls are not watched.
void after_each_system_call(std::function<void()> look);

void start_watching_system_calls(Scope scope, const Interference& interference);
SystemCalls stop_watching_system_calls();

// The watched calls that `call` makes, while one of them is meddled with.
template <typename Call>
SystemCalls system_calls_of(Call call, Scope scope = Scope::EVERYTHING,
                            const Interference& interference = NO_INTERFERENCE)
{
    start_watching_system_calls(scope, interference);
    std::move(call)();
    return stop_watching_system_calls();
}
