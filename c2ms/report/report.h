// What the two reporting channels share: the facts that a message tells, the description of the
// bodies as tables of fields, the encoder that follows from them, and the reader of a reply. The
// channels themselves are report/auth.h (a local agent) and report/perf.h (the report server).
//
// A message is an 18-byte header and a body, all integers big-endian: u32 total length, u32 kind,
// u32 sequence number (the management context's counter, one for both channels), u16 version 2, u32
// value, body. The value is the time in seconds in a ping and a play end, the session id in a play
// begin and a play alive, so that a reader can tell sessions apart without deciphering.
// docs/protocol.md shows all.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <variant>

#include "c2ms/core/records.h"

namespace c2ms {

/// What the messages of a session can tell, copied from the session and its context at one moment.
struct report_facts {
  c2ms_mgmt *mgmt = nullptr;
  // The device and its user.
  uint32_t oemid = 0, vendorid = 0, version = 0, build_time = 0;
  std::array<uint8_t, 20> hid{};
  uint64_t uid = 0;
  uint32_t local_ip = 0;
  // The session and its media.
  uint32_t sess_id = 0;
  uint64_t token = 0;  // the session's 8 random bytes: tells players apart whose ids are equal
  std::array<uint8_t, 16> fid{};
  uint32_t keyid = 0, stamp = 0, media_type = 0;
  uint64_t media_size = 0;
  std::array<char, 37> media_name{};
  uint64_t open_time = 0, close_time = 0;  // seconds since the epoch; close_time 0 while playing
  // How it went.
  uint32_t seek_num = 0;
  uint64_t total_bytes = 0, recv_time = 0;         // bytes; microseconds of receiving
  uint32_t realtime_speed = 0, average_speed = 0;  // bytes per millisecond
  uint64_t read_pos = 0;
  std::atomic<bool> *untold = nullptr;  // set when the farewell is given up; NULL: nobody asks
};

/// The facts of a session as they are now; its management context is set. Any thread while the
/// session can't be recycled. Takes small locks.
report_facts report_facts_of(c2ms_sess *sess);

enum class report_kind : uint32_t { ping = 1, play_begin = 257, play_end = 258, play_alive = 259 };

/// One field of a body. Numbers take 4 or 8 bytes, ids their length; a name is a u16 length and its
/// bytes.
struct report_field {
  const char *name;
  std::variant<uint32_t report_facts::*, uint64_t report_facts::*,
               std::array<uint8_t, 16> report_facts::*, std::array<uint8_t, 20> report_facts::*,
               std::array<char, 37> report_facts::*>
      from;
};

/// The body of a kind of message, in order; both channels use the same. A ping has none.
std::span<const report_field> report_fields(report_kind kind);

inline constexpr int report_buffer_bytes = 1024;  // holds every message
inline constexpr int report_header_bytes = 18;
inline constexpr int report_length_bytes = 4;  // what every message begins with
inline constexpr int report_port = 3528;

enum class report_body : uint8_t { clear, enciphered };

/// Writes a message of `now` (seconds since the epoch) and takes its sequence number. An enciphered
/// body is DES in ECB mode with PKCS#5 padding under the context's key. The length; -2 no buffer or
/// a length below 1, -3 no management context, -100 when `len` bytes are not enough.
int encode_report(const report_facts &facts, report_kind kind, report_body body, uint32_t now,
                  void *buf, int len);

/// The same for a session and this moment; -1 no session.
int encode_report(c2ms_sess *sess, report_kind kind, report_body body, void *buf, int len);

/// The first u32 of a reply's body, the peer's result; -100 for a reply of another kind or too
/// short to hold one. A result above 2^31-1 comes out negative, as a failure.
int decode_report_reply(report_kind kind, const void *buf, int len);

/// The sequence number of a message that has at least a header.
uint32_t report_sequence(const void *message);

/// Whether a datagram of `size` bytes (at most report_buffer_bytes of them are there) is one whole
/// message that answers the request of this number.
bool answers_report(const void *datagram, int64_t size, uint32_t sequence);

/// How many bytes of a reply follow its length on a stream: at least 1, and all of the reply fits
/// report_buffer_bytes; or reply_too_short, reply_too_long.
int reply_bytes_left(const uint8_t (&length)[report_length_bytes]);
inline constexpr int reply_too_short = -501;
inline constexpr int reply_too_long = -600;

/// Seconds since the epoch as a message carries them.
uint32_t report_time();

/// A descriptor, closed at the end of its scope.
class ReportSocket {
 public:
  explicit ReportSocket(int fd) : fd_(fd) {}
  ~ReportSocket();
  ReportSocket(const ReportSocket &) = delete;
  ReportSocket &operator=(const ReportSocket &) = delete;
  int fd() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  const int fd_;
};

/// A datagram socket that talks to this address (network order) alone.
bool connect_datagrams(const ReportSocket &socket, uint32_t address);

}  // namespace c2ms
