#include "core/work_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Nobody else can write it or reach it by another name. In a sticky /tmp
// nobody else can remove or rename it either.
bool ours(const struct stat& st) { return S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1; }

// Another user's entry, a second name of a file, a symbolic link: removing
// it takes nothing from anyone else. What else is our own (the daemon's
// FIFO, a device node) belongs to the system and is refused.
bool foreign(const struct stat& st)
{
    return st.st_uid != geteuid() || S_ISLNK(st.st_mode) || (S_ISREG(st.st_mode) && st.st_nlink != 1);
}

}  // namespace

int open_work_file(const char* path, int flags, mode_t mode)
{
    // Another user may put a new file of that name between two steps: a few
    // rounds, then the failure of the last one.
    for (int attempt = 0; attempt < 4; ++attempt) {
        struct stat st;
        if (lstat(path, &st) == 0) {
            if (foreign(st)) {
                // Root may remove another user's file from a sticky /tmp.
                if (unlink(path) != 0 && errno != ENOENT) return -1;
                continue;
            }
            if (!S_ISREG(st.st_mode)) {
                errno = EINVAL;
                return -1;
            }
            // O_NONBLOCK: a FIFO put there meanwhile does not hold the open up.
            int fd = open(path, (flags & ~O_CREAT) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
            if (fd < 0) {
                if (errno == ENOENT || errno == ELOOP) continue;
                return -1;
            }
            // The file opened is the one checked only if it still passes.
            if (fstat(fd, &st) == 0 && ours(st)) {
                fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
                return fd;
            }
            close(fd);
            errno = EEXIST;
            continue;
        }
        if (errno != ENOENT) return -1;
        int fd = open(path, flags | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, mode);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}
