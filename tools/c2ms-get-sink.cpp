// Writes the bytes that c2ms-get fetches.
#include "tools/c2ms-get-sink.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace get {

Sink::~Sink() {
  if (owned_ && fd_ >= 0) ::close(fd_);
  gcry_md_close(hash_);
}

std::string Sink::open(const std::string &path, bool exclusive, bool hashed) {
  if (hashed && gcry_md_open(&hash_, GCRY_MD_SHA256, 0) != 0) return "SHA-256 is not available";
  if (path == "-") {
    path_ = "standard output";
    fd_ = STDOUT_FILENO;
    return "";
  }
  path_ = path;
  const int how = O_WRONLY | O_CREAT | O_CLOEXEC | (exclusive ? O_EXCL : O_TRUNC);
  fd_ = ::open(path.c_str(), how, 0666);
  if (fd_ < 0) return "cannot create " + path + ": " + std::strerror(errno);
  owned_ = true;
  return "";
}

size_t Sink::write(const uint8_t *data, size_t size, const volatile int *stop) {
  size_t done = 0;
  while (done < size && !*stop) {
    const ssize_t n = ::write(fd_, data + done, size - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {  // a non-blocking pipe inherited from another program
      pollfd ready{fd_, POLLOUT, 0};
      ::poll(&ready, 1, 100);
      continue;
    }
    error_ = "cannot write to " + path_ + ": " + std::strerror(n < 0 ? errno : EIO);
    break;
  }
  if (hash_) gcry_md_write(hash_, data, done);
  return done;
}

std::string Sink::close() {
  if (!owned_ || fd_ < 0) return "";
  const int result = ::close(fd_);
  fd_ = -1;
  return result == 0 ? "" : "cannot write to " + path_ + ": " + std::strerror(errno);
}

std::string Sink::sha256() {
  static constexpr char digits[] = "0123456789abcdef";
  const unsigned char *const digest = gcry_md_read(hash_, GCRY_MD_SHA256);
  std::string text;
  for (unsigned i = 0; i < gcry_md_get_algo_dlen(GCRY_MD_SHA256); ++i) {
    text += digits[digest[i] >> 4];
    text += digits[digest[i] & 15];
  }
  return text;
}

}  // namespace get
