// A lock between processes: an advisory POSIX record lock over a whole file. For programs that
// embed the library. It excludes processes, not threads: two threads of one process both get it.
#pragma once

#include <fcntl.h>

#include <cstdint>

struct file_mutex {
  int32_t fd;
  struct flock lock_desc;  ///< rewritten before every call
  file_mutex *next;        ///< the next living one of this process
};

/// A lock on the file `path`, which must exist, not yet taken. Null when it doesn't, can't be
/// opened for reading and writing, or memory has run out.
[[nodiscard]] file_mutex *file_mutex_init(const char *path);
/// Takes the lock without waiting. 0; -1 when another process holds it, on error, or for null.
int file_mutex_lock(file_mutex *fm);
/// 0, or -1 on error or for null.
int file_mutex_unlock(file_mutex *fm);
/// Whether some other process holds the lock on `path`: 1 or 0; -1 on error. A lock of the calling
/// process is 0, and is not disturbed. Creates a missing file without any permission bits. Kept for
/// compatibility: the file serves as a lock alone, and only root can open it again.
int file_mutex_locked(const char *path);
/// Closes the file and frees the record; 0. Descriptor 0 stays open. Kept for compatibility: it is
/// some host's standard input. POSIX drops the
/// process's lock on a file with the first of its descriptors that is closed: one mutex per file.
int file_mutex_destroy(file_mutex *fm);
