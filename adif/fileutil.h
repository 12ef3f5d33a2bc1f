// Queries and edits of files. All block for the file system; none waits for a FIFO or a device.
// Paths are NUL-terminated; a null path fails as a missing file does. Thread-safe.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>

/// 1 if anything exists at the path (links are followed), else 0.
int file_exist(const char *path);

/// 1 for a regular file (links are followed), else 0.
int is_regular_file(const char *path);

/// Size in bytes, -1 if there is none.
int64_t file_size(const char *path);

/// 1 if the stream has an open descriptor, else 0.
int file_is_valid(FILE *stream);

/// Drops the first `skip` lines (below 0: none) of a text file by writing the rest to a temporary
/// file beside it, of the same mode, and renaming that over the path. A line of more than 1023
/// characters counts as several. 0, or -1 with the file as it was.
int file_rollover(const char *path, int skip);

/// Reads a regular file whole. Returns its bytes and a NUL after them, to be released with
/// kfree_dbg, and stores their number in `*size_out` (may be null; 0 after a failure). Null for
/// anything but a regular file, a read error, or without memory.
uint8_t *file_read(const char *path, int64_t *size_out);

/// Writes a file whole: creates it (mode 0644) or replaces its content. Returns `n`, or -1 for null
/// bytes with `n` above 0, `n` below 0, or a failed write (the file may then hold a part).
int64_t file_write(const char *path, const void *bytes, int64_t n);

struct file_attributes {
  int64_t size;
  time_t modified;
  time_t accessed;
  uint32_t mode;  // permission bits
  uint8_t is_regular;
  uint8_t is_directory;
};

/// 0, or -1 for null or when the path cannot be examined (`*out` untouched).
int file_attr(const char *path, file_attributes *out);

/// Creates a directory with all its missing parents, mode 0755 less the umask. 0, also when it is
/// there already; -1 otherwise.
int file_dir_create(const char *path);
