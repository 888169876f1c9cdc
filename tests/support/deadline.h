// Ends the program when a piece of a test does not come to an end.
#pragma once

#include <unistd.h>

class Deadline {
  public:
    explicit Deadline(unsigned int seconds)
    {
        alarm(seconds);
    }

    ~Deadline()
    {
        alarm(0);
    }

    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;
};
