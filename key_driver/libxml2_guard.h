// Entering and leaving libxml2 (internal to the library).
//
// The key store calls xmlCleanupParser after most of its operations. libxml2 does not allow that
// call while another thread is inside it: reading threads were seen to hang and to abort within
// seconds. So every stretch of libxml2 work, from reading a document to having released it, stands
// between libxml2_enter and libxml2_leave. Threads inside are counted; a wish for a clean-up is
// noted, and the last thread to leave carries it out. Nobody waits for another thread's work, only
// for a clean-up in progress, and the key store's own mutex is not involved.
//
// The guard knows the callers of this library only. A program that uses libxml2 itself in other
// threads is still exposed to the clean-up; the build option ZENTRAVA_XML_CLEANUP=OFF leaves
// the call out.
#ifndef ZENTRAVA_KEY_DRIVER_LIBXML2_GUARD_H
#define ZENTRAVA_KEY_DRIVER_LIBXML2_GUARD_H

#pragma GCC visibility push(hidden)

// Begins a stretch of libxml2 work in the calling thread. Stretches nest. From the outermost entry
// to its leave, libxml2's error reports of this thread are swallowed: by default it would print the
// offending line of a malformed file, pieces of private keys included, on standard error.
void libxml2_enter();

// Whether an allocation of libxml2's failed in the calling thread since its outermost entry. The
// parser drops what it found no memory for and returns the rest as if it were the whole.
bool libxml2_ran_out_of_memory();

// Ends the innermost stretch of the calling thread; the outermost one puts the thread's error
// reporting back as it was. With `clean_up`, xmlCleanupParser is called as soon as no thread is
// inside: at once when the caller was the only one.
void libxml2_leave(bool clean_up);

#pragma GCC visibility pop

#endif
