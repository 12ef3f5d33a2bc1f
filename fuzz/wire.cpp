// See wire.h.
#include "wire.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace fuzz {
namespace {

wire *current = nullptr;

}  // namespace

wire::wire(const std::vector<uint8_t> *bytes, uint8_t first)
    : bytes_(*bytes), first_(first), before_(current) {
  current = this;
}

wire::~wire() {
  current = before_;
}

bool wire::next_piece() {
  if (arrived_ == bytes_.size()) return false;
  const size_t piece = size_t{arrived_ == 0 ? first_ : bytes_[arrived_]} + 1;
  arrived_ += std::min(piece, bytes_.size() - arrived_);
  interrupted_ = true;
  return true;
}

void wire::end(bool fails, int64_t flood) {
  arrived_ = bytes_.size();
  ended_ = true;
  fails_ = fails;
  flood_ = flood;
}

long wire::receive(uint8_t *to, size_t size, bool peek) {
  if (interrupted_) {
    interrupted_ = false;
    errno = EINTR;
    return -1;
  }
  if (const size_t n = std::min(size, arrived_ - taken_); n > 0) {
    std::memcpy(to, bytes_.data() + taken_, n);
    if (!peek) taken_ += n;
    return static_cast<long>(n);
  }
  if (!ended_) {
    errno = EAGAIN;
    return -1;
  }
  if (flood_ > 0) {
    const int64_t n = std::min(flood_, static_cast<int64_t>(size));
    if (!peek) flood_ -= n;
    std::memset(to, 0, std::min<size_t>(static_cast<size_t>(n), 1024));  // what may become a header
    return static_cast<long>(n);
  }
  errno = ECONNRESET;
  return fails_ ? -1 : 0;
}

}  // namespace fuzz

extern "C" {

ssize_t recv(int fd, void *buffer, size_t size, int flags) {
  if (fd != fuzz::wire_fd) return syscall(SYS_recvfrom, fd, buffer, size, flags, nullptr, nullptr);
  return fuzz::current->receive(static_cast<uint8_t *>(buffer), size, (flags & MSG_PEEK) != 0);
}

ssize_t recvmsg(int fd, msghdr *message, int flags) {
  if (fd != fuzz::wire_fd) return syscall(SYS_recvmsg, fd, message, flags);
  ssize_t total = 0;
  for (size_t i = 0; i < message->msg_iovlen; ++i) {
    const iovec &piece = message->msg_iov[i];
    if (piece.iov_len == 0) continue;
    const long n =
        fuzz::current->receive(static_cast<uint8_t *>(piece.iov_base), piece.iov_len, false);
    if (n < 1) return total > 0 ? total : n;
    total += n;
    if (static_cast<size_t>(n) < piece.iov_len) break;
  }
  return total;
}
}
