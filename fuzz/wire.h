// A descriptor that delivers what a fuzz target puts on it, without a system call: recv and recvmsg
// of the program it is linked into know it, and pass all others on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz {

inline constexpr int wire_fd = 0x7ffffff;

/// Bytes in pieces: the first of one byte more than `first`, each other one of a byte more than the
/// byte that it begins with says. The wire made last is what wire_fd stands for. The first call for
/// each piece is interrupted.
class wire {
 public:
  wire(const std::vector<uint8_t> *bytes, uint8_t first);
  ~wire();
  wire(const wire &) = delete;
  wire &operator=(const wire &) = delete;

  /// Makes the next piece arrive. False when all are there.
  bool next_piece();
  /// How many bytes have arrived, taken or not.
  size_t passed() const { return arrived_; }
  /// All is there; `flood` bytes of no content follow, then the end, or an error.
  void end(bool fails, int64_t flood);

  long receive(uint8_t *to, size_t size, bool peek);

 private:
  const std::vector<uint8_t> &bytes_;
  const uint8_t first_;
  size_t arrived_ = 0, taken_ = 0;
  bool interrupted_ = false, ended_ = false, fails_ = false;
  int64_t flood_ = 0;
  wire *const before_;
};

}  // namespace fuzz
