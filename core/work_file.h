// Files the daemon makes under a directory that others can write (/tmp).
#pragma once
#include <sys/types.h>

// Opens the work file at path for flags (which hold O_CREAT) so that it is
// root's alone from here to its use: a regular file of this user with one
// link is opened as it is (its tail kept, unless flags hold O_TRUNC);
// another user's entry of that name (a file, a FIFO), a file with a second
// link and a symbolic link are removed first, and the file is made anew
// with O_EXCL and mode. Anything else of this user's (the daemon's FIFO)
// fails with EINVAL. Close-on-exec. Returns the descriptor, or -1 with errno.
int open_work_file(const char* path, int flags, mode_t mode);
