// The lock between processes (internal to the library and its tools).
//
// Whoever reads, changes and saves a store file holds this lock meanwhile, so that no process
// undoes another's change and no handle is given out twice. It is an advisory lock (flock) on the
// current working directory, which is what makes up a store: no file of its own is needed, and the
// store files can be replaced under it. Where a store file is a symbolic link, the directory of the
// file that it leads to is locked as well, since other working directories may lead there too. The
// operating system takes the lock back from a process that dies.
#ifndef ZENTRAVA_KEY_DRIVER_STORE_LOCK_H
#define ZENTRAVA_KEY_DRIVER_STORE_LOCK_H

#pragma GCC visibility push(hidden)

// Takes the lock, waiting for other processes as long as it takes. Where a directory cannot be
// opened or its file system has no such locks, the caller goes on without that one. Within a
// process, one caller at a time: the key store calls it with its own mutex held.
void store_lock_take();

// Gives back what was taken of it.
void store_lock_give_back();

// Whether the calling process has the lock, on every directory that is part of it.
bool store_lock_is_held();

#pragma GCC visibility pop

#endif
