// The output of c2ms-get: a file or standard output, with SHA-256 if asked for. Only the fetching
// thread uses it.
#pragma once

#include <gcrypt.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace get {

class Sink {
 public:
  Sink() = default;
  ~Sink();  // closes the file; the bytes written stay
  Sink(const Sink &) = delete;
  Sink &operator=(const Sink &) = delete;

  /// Opens `path` ("-": standard output) for writing from its start; `exclusive`: only if it does
  /// not exist. `hashed`: sha256() will be called. Returns "", or a message.
  std::string open(const std::string &path, bool exclusive, bool hashed);

  /// Writes all bytes and blocks if the file does. A signal that sets `*stop` ends it. Returns how
  /// many were written; fewer than `size` with an empty error() means that it was stopped.
  size_t write(const uint8_t *data, size_t size, const volatile int *stop);

  /// Closes the file, which shows late errors of the file system. Returns "", or a message.
  std::string close();

  /// SHA-256 of everything written so far, 64 lower-case digits. Nothing may be written afterwards.
  std::string sha256();

  const std::string &error() const { return error_; }

 private:
  int fd_ = -1;
  bool owned_ = false;
  gcry_md_hd_t hash_ = nullptr;
  std::string path_;
  std::string error_;
};

}  // namespace get
