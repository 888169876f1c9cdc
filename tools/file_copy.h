// Owner, group, permissions and access control list of files, for copies of them.
#ifndef ZENTRAVA_TOOLS_FILE_COPY_H
#define ZENTRAVA_TOOLS_FILE_COPY_H

#include <string>

// Gives one open file the owner and the permissions of another; false, with errno set, where that
// is not permitted. At no time more people can read it than before or than the other.
bool copy_permissions(int from, int to);

// Makes a file in a directory, which must not have one of this name, fills it, and reads it back
// from the disk's side to compare. False, with errno set and no file left, if that fails.
bool make_copy(int directory, const char* name, const std::string& content, int permissions_of);

#endif
