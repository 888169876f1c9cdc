// Mounts that nobody else sees, and that are gone with the test's process at the latest.
#pragma once

#include <sched.h>
#include <sys/mount.h>

// False where that is not permitted.
inline bool make_mounts_private()
{
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) == 0;
}

class Mount {
  public:
    Mount(const char* source, const char* target, const char* type, unsigned long flags,
          const char* options)
        : target_(target),
          mounted_(make_mounts_private() && mount(source, target, type, flags, options) == 0)
    {
    }

    ~Mount()
    {
        if (mounted_) {
            umount2(target_, MNT_DETACH);
        }
    }

    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    bool is_there() const
    {
        return mounted_;
    }

  private:
    const char* target_;
    bool mounted_;
};
