// Saving a store file so that it is never lost (internal to the library and its tools).
#ifndef ZENTRAVA_KEY_DRIVER_DURABLE_SAVE_H
#define ZENTRAVA_KEY_DRIVER_DURABLE_SAVE_H

#include <libxml/tree.h>

#pragma GCC visibility push(hidden)

// Replaces the content of an existing store file by the document: wholly or not at all, whatever
// happens meanwhile (a kill, a power cut, a full disk), and on the disk when it returns.
//
// The new content goes to a sibling, the file's name with ".saving" behind it, which has the file's
// owner and permissions from the start and is renamed over it when complete. A symbolic link stays
// one: the file it leads to is replaced. Where permissions or the kind of file alone stand in the
// way of the sibling or of the renaming (a directory that is not writable, an owner that cannot be
// kept, a mount point), the file is overwritten in place, which a kill can interrupt.
//
// The caller is inside libxml2 (libxml2_guard.h) and has the lock between processes (store_lock.h)
// if it is to be had; with the lock, a sibling that a killed process left is cleared away.
//
// A document that could not be read again once it is written, or not with the texts that it has, is
// not saved at all. That takes a file that was prepared with declarations that libxml2 writes
// wrongly, or in an encoding that loses characters.
//
// True when the new content is in the file and on the disk. False when it could not be written: the
// file is as it was, and no sibling is left. (Only where the directory's own flush fails at last
// does the new content stay although the result is false.)
bool durable_save(const char* file_name, xmlDocPtr document);

#pragma GCC visibility pop

#endif
