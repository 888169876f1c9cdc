// The lock between processes (internal to the library and its tools).
//
// Whoever reads, changes and saves a store file holds this lock meanwhile, so that no process
// undoes another's change and no handle is given out twice. It is an advisory lock on the current
// working directory, which is what makes up a store: no file of its own is needed, and the store
// files can be replaced under it. The operating system takes it back from a process that dies.
#ifndef ZENTRAVA_KEY_DRIVER_STORE_LOCK_H
#define ZENTRAVA_KEY_DRIVER_STORE_LOCK_H

#pragma GCC visibility push(hidden)

// Takes the lock, waiting for other processes as long as it takes. Where the directory cannot be
// opened or its file system has no such locks, the caller goes on without it. Within a process, one
// caller at a time: the key store calls it with its own mutex held.
void store_lock_take();

// Gives the lock back, if it was taken.
void store_lock_give_back();

// Whether the calling process has the lock.
bool store_lock_is_held();

#pragma GCC visibility pop

#endif
