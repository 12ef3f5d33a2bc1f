// Questions about files, and files read and written whole. See fileutil.h.
#include "adif/fileutil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <memory>

#include "adif/kalloc.h"

namespace {

constexpr int line_limit = 1023;
constexpr mode_t new_file_mode = 0644;
constexpr mode_t new_directory_mode = 0755;

struct stream_close {
  void operator()(FILE *stream) const { std::fclose(stream); }
};
using stream_ptr = std::unique_ptr<FILE, stream_close>;

class descriptor {
 public:
  explicit descriptor(int fd) : fd_(fd) {}
  ~descriptor() { close(); }
  descriptor(const descriptor &) = delete;
  descriptor &operator=(const descriptor &) = delete;
  int get() const { return fd_; }
  int close() {
    const int fd = fd_;
    fd_ = -1;
    return fd < 0 ? 0 : ::close(fd);
  }

 private:
  int fd_;
};

bool examine(const char *path, struct stat *status) {
  return path && stat(path, status) == 0;
}

/// A text of `size` bytes on the heap.
adif::kptr<char> text_buffer(size_t size) {
  return adif::kptr<char>(static_cast<char *>(kalloc_dbg(static_cast<int64_t>(size))));
}

/// Copies the lines from number `skip` (of 0) on; a line ends at its line feed or its limit.
bool copy_lines(FILE *in, FILE *out, int skip) {
  int64_t line = 0;
  int column = 0;
  for (int c = std::getc(in); c != EOF; c = std::getc(in)) {
    if (line >= skip && std::putc(c, out) == EOF) return false;
    if (c == '\n' || ++column == line_limit) {
      ++line;
      column = 0;
    }
  }
  return !std::ferror(in);
}

/// Reads up to `size` bytes; fewer at the end of the file. -1 for an error.
int64_t read_fully(int fd, uint8_t *out, int64_t size) {
  int64_t total = 0;
  while (total < size) {
    const ssize_t got = read(fd, out + total, static_cast<size_t>(size - total));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    total += got;
  }
  return total;
}

bool make_directory(const char *path) {
  // Tried first and asked afterwards: another process may make it in between.
  if (mkdir(path, new_directory_mode) == 0) return true;
  struct stat status;
  return errno == EEXIST && examine(path, &status) && S_ISDIR(status.st_mode);
}

}  // namespace

int file_exist(const char *path) {
  struct stat status;
  return examine(path, &status) ? 1 : 0;
}

int is_regular_file(const char *path) {
  struct stat status;
  return examine(path, &status) && S_ISREG(status.st_mode) ? 1 : 0;
}

int64_t file_size(const char *path) {
  struct stat status;
  return examine(path, &status) ? status.st_size : -1;
}

int file_is_valid(FILE *stream) {
  struct stat status;
  return stream && fstat(fileno(stream), &status) == 0 ? 1 : 0;
}

int file_rollover(const char *path, int skip) {
  struct stat status;
  if (!examine(path, &status) || !S_ISREG(status.st_mode)) return -1;
  timeval now;
  gettimeofday(&now, nullptr);
  const size_t size = std::strlen(path) + 32;
  const adif::kptr<char> temporary = text_buffer(size);
  if (!temporary) return -1;
  std::snprintf(temporary.get(), size, "%s_%u_%u", path, static_cast<unsigned>(now.tv_sec),
                static_cast<unsigned>(now.tv_usec));

  stream_ptr in(std::fopen(path, "re"));
  if (!in) return -1;
  // Beside the file itself, so that the renaming stays within one file system.
  const int fd =
      open(temporary.get(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, status.st_mode & 0777);
  if (fd < 0) return -1;
  stream_ptr out(fdopen(fd, "w"));
  if (!out) close(fd);
  const bool copied =
      out && fchmod(fd, status.st_mode & 0777) == 0 && copy_lines(in.get(), out.get(), skip);
  const bool closed = out && std::fclose(out.release()) == 0;
  if (copied && closed && std::rename(temporary.get(), path) == 0) return 0;
  // The file is as it was: only a whole copy takes its name.
  unlink(temporary.get());
  return -1;
}

uint8_t *file_read(const char *path, int64_t *size_out) {
  if (size_out) *size_out = 0;
  if (!path) return nullptr;
  // Without O_NONBLOCK the open itself would wait for a FIFO's writer.
  const descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status;
  if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  adif::kptr<uint8_t> bytes(static_cast<uint8_t *>(kalloc_dbg(int64_t{status.st_size} + 1)));
  if (!bytes) return nullptr;
  const int64_t size = read_fully(file.get(), bytes.get(), status.st_size);
  if (size < 0) return nullptr;
  // So that a text can be used where it lies.
  bytes.get()[size] = '\0';
  if (size_out) *size_out = size;
  return bytes.release();
}

int64_t file_write(const char *path, const void *bytes, int64_t n) {
  if (!path || n < 0 || (!bytes && n > 0)) return -1;
  descriptor file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, new_file_mode));
  if (file.get() < 0) return -1;
  const auto *from = static_cast<const uint8_t *>(bytes);
  for (int64_t done = 0; done < n;) {
    const ssize_t put = write(file.get(), from + done, static_cast<size_t>(n - done));
    if (put < 0 && errno != EINTR) return -1;
    if (put > 0) done += put;
  }
  // A file system may report a full disk only now.
  return file.close() == 0 ? n : -1;
}

int file_attr(const char *path, file_attributes *out) {
  struct stat status;
  if (!out || !examine(path, &status)) return -1;
  out->size = status.st_size;
  out->modified = status.st_mtime;
  out->accessed = status.st_atime;
  out->mode = status.st_mode & 07777;
  out->is_regular = S_ISREG(status.st_mode);
  out->is_directory = S_ISDIR(status.st_mode);
  return 0;
}

int file_dir_create(const char *path) {
  if (!path || !*path) return -1;
  const size_t size = std::strlen(path) + 1;
  const adif::kptr<char> prefix = text_buffer(size);
  if (!prefix) return -1;
  std::memcpy(prefix.get(), path, size);
  // From the second character on: an absolute path's first slash names nothing to make.
  for (char *slash = std::strchr(prefix.get() + 1, '/'); slash;
       slash = std::strchr(slash + 1, '/')) {
    *slash = '\0';
    if (!make_directory(prefix.get())) return -1;
    *slash = '/';
  }
  return make_directory(prefix.get()) ? 0 : -1;
}
