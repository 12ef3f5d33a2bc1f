// Where c2ms-get puts the bytes: a file or standard output, hashed on the way when asked. Used by
// the thread that fetches, and no other.
#pragma once

#include <gcrypt.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace get {

class Sink {
 public:
  Sink() = default;
  ~Sink();  // closes; what was written stays
  Sink(const Sink &) = delete;
  Sink &operator=(const Sink &) = delete;

  /// Opens `path` ("-": standard output) for writing from its start; `exclusive`: only if it does
  /// not exist. `hashed`: sha256() will be asked for. Empty, or what went wrong.
  std::string open(const std::string &path, bool exclusive, bool hashed);

  /// Writes all bytes, blocking as the file does; a signal that sets `*stop` ends it. Returns how
  /// many were written; fewer than `size` with error() empty means that it was stopped.
  size_t write(const uint8_t *data, size_t size, const volatile int *stop);

  /// Closes, so that late errors of the file system show. Empty, or what went wrong.
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
