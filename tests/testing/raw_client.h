// A client of nothing but a socket: what the media server's own tests speak with. It writes
// requests by hand, knows no state and reads bytes as they come.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/support.h"
#include "testing/media_server.h"

namespace rawtest {

using refserver::bytes;

/// A request laid out byte by byte; fields to tamper with are found by their offsets.
inline bytes make_request(uint32_t command, uint32_t sequence, const refserver::file_id &fid,
                          uint64_t offset = 0, uint32_t length = 0, uint8_t flag = 0,
                          const char *local_ip = "10.1.1.200") {
  bytes out(command == 3 ? 119 : 106);
  const auto put = [&out](size_t at, uint64_t value, int width) {
    for (int i = width - 1; i >= 0; --i, value >>= 8) out[at + i] = static_cast<uint8_t>(value);
  };
  put(0, out.size(), 4);
  put(4, command, 4);
  put(8, sequence, 4);
  put(12, 0x0203, 2);
  put(14, 0x01020304, 4);
  std::memcpy(&out[18], local_ip, std::min<size_t>(std::strlen(local_ip), 16));
  for (int i = 0; i < 20; ++i) out[34 + i] = static_cast<uint8_t>(0x40 + i);
  put(54, 0x1122334455667788, 8);
  std::copy(fid.begin(), fid.end(), out.begin() + 90);
  if (command != 3) return out;
  put(106, offset, 8);
  put(114, length, 4);
  out[118] = flag;
  return out;
}

/// Fills auth, stamp and key id from a URL of the server.
inline void sign(bytes &request, const std::string &url) {
  const auto after = [&url](const char *key) { return url.substr(url.find(key) + strlen(key)); };
  const std::string auth = after("auth=");
  for (size_t i = 0; i < 16; ++i)
    request[62 + i] = static_cast<uint8_t>(std::stoi(auth.substr(2 * i, 2), nullptr, 16));
  const auto stamp = static_cast<int32_t>(std::stoul(after("stamp=")));
  refserver::put32(&request[78], stamp < 0 ? 0xffffffff : 0);
  refserver::put32(&request[82], static_cast<uint32_t>(stamp));
  refserver::put32(&request[86], static_cast<uint32_t>(std::stoul(after("keyid="))));
}

class raw_client {
 public:
  raw_client(const refserver::media_server &server, int node) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(server.port(node));
    inet_pton(AF_INET, server.address(node).c_str(), &name.sin_addr);
    if (connect(fd_, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0) connect_errno_ = errno;
  }
  ~raw_client() { close(fd_); }
  raw_client(const raw_client &) = delete;
  raw_client &operator=(const raw_client &) = delete;

  int connect_errno() const { return connect_errno_; }  ///< 0: connected

  void send(const bytes &data) { (void)::send(fd_, data.data(), data.size(), MSG_NOSIGNAL); }

  /// Up to `count` bytes; fewer when the stream ends or nothing comes for 20 s.
  bytes receive(size_t count) {
    bytes out(count);
    size_t done = 0;
    while (done < count && readable(20'000)) {
      const ssize_t n = recv(fd_, out.data() + done, count - done, 0);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    out.resize(done);
    return out;
  }

  /// One whole response with its media bytes.
  bytes receive_response() {
    bytes out = receive(4);
    if (out.size() == 4) append(out, refserver::get32(out.data()) - 4);
    if (out.size() >= 37 && refserver::get32(&out[4]) == 0x80000003)
      append(out, refserver::get32(&out[32]));
    return out;
  }

  /// What follows on the stream: "bytes", "closed", "reset" or, after 20 ms of silence if that is
  /// `expected`, else after 20 s, "open".
  std::string ending(const std::string &expected = "open") {
    if (!readable(expected == "open" ? 20 : 20'000)) return "open";
    uint8_t byte;
    const ssize_t n = recv(fd_, &byte, 1, 0);
    return n > 0 ? "bytes" : n == 0 ? "closed" : errno == ECONNRESET ? "reset" : strerror(errno);
  }

 private:
  bool readable(int ms) const {
    pollfd wanted{fd_, POLLIN, 0};
    return poll(&wanted, 1, ms) > 0;
  }
  void append(bytes &out, size_t count) {
    const bytes more = receive(count);
    out.insert(out.end(), more.begin(), more.end());
  }

  int fd_ = -1;
  int connect_errno_ = 0;
};

}  // namespace rawtest
