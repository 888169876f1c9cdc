// POSIX access control lists, as the kernel takes them for extended attributes: no library is
// needed.
#pragma once

#include <linux/posix_acl_xattr.h>
#include <stdint.h>
#include <sys/xattr.h>

#include <string>
#include <vector>

inline const char* const ACCESS_LIST = "system.posix_acl_access";
inline const char* const DEFAULT_LIST = "system.posix_acl_default"; // for new files of a directory

// An access control list that gives one more user than the owner the right to read and to write,
// and nobody else anything.
inline std::string list_with_user(uint32_t user)
{
    const uint32_t nobody = static_cast<uint32_t>(-1);
    const posix_acl_xattr_entry entries[] = {
        {0x01, 6, nobody},                    // the owner
        {0x02, 6, user},   {0x04, 0, nobody}, // the group
        {0x10, 6, nobody},                    // the mask
        {0x20, 0, nobody},                    // everybody else
    };
    const posix_acl_xattr_header header = {2};
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) +
           std::string(reinterpret_cast<const char*>(entries), sizeof entries);
}

inline bool set_attribute(const std::string& path, const char* name, const std::string& value)
{
    return setxattr(path.c_str(), name, value.data(), value.size(), 0) == 0;
}

// Empty when the file has no such attribute.
inline std::string attribute(const std::string& path, const char* name)
{
    char value[1024];
    const ssize_t size = getxattr(path.c_str(), name, value, sizeof value);
    return {value, size > 0 ? static_cast<size_t>(size) : 0};
}
