// The lock between processes, seen from outside.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

// Asks another process's question of the working directory: flock tells apart who opened a file,
// not who asks. Fit for a signal handler.
inline bool process_lock_is_held()
{
    const int directory = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool held = flock(directory, LOCK_EX | LOCK_NB) != 0;
    close(directory);
    return held;
}
