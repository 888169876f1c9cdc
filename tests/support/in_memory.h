// A store directory in memory, where the system has such a place: flushing costs nothing there, and
// a test that saves thousands of times stays quick.
#pragma once

#include "tests/support/store_directory.h"

#include <stdlib.h>
#include <unistd.h>

class StoreInMemory : public StoreDirectory {
  protected:
    void SetUp() override
    {
        if (access("/dev/shm", W_OK | X_OK) == 0) {
            setenv("TMPDIR", "/dev/shm", 0);
        }
        StoreDirectory::SetUp();
    }
};
