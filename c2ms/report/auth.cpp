// See auth.h.
#include "c2ms/report/auth.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "adif/tsock.h"
#include "c2ms/core/time.h"
#include "c2ms/report/report.h"

namespace {

using namespace c2ms;

int await_reply(const ReportSocket &socket, report_kind kind, uint32_t sequence, int wait_ms) {
  const auto end = steady::now() + std::chrono::milliseconds(wait_ms);
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady::now()).count();
    if (left < 1 || sock_read_ready(socket.fd(), static_cast<int>(left)) != 1) return -400;
    uint8_t reply[report_buffer_bytes];
    const ssize_t size = recv(socket.fd(), reply, sizeof reply, MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0 && errno != EAGAIN && errno != EINTR) return -500;
    if (answers_report(reply, size, sequence))
      return decode_report_reply(kind, reply, static_cast<int>(size));
  }
}

// One message to the agent; waits for its reply if `wait` says how long.
int tell(const report_facts &facts, report_kind kind, int report_waits::*wait) {
  if (facts.mgmt == nullptr) return -2;
  const ReportSocket socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return -100;
  uint8_t message[report_buffer_bytes];
  const int length =
      encode_report(facts, kind, report_body::clear, report_time(), message, sizeof message);
  if (length < 0) return -200;
  if (!connect_datagrams(socket, facts.mgmt->agent_ip)) return -300;
  if (send(socket.fd(), message, static_cast<size_t>(length), MSG_NOSIGNAL) != length) return -300;
  if (wait == nullptr) return 0;
  return await_reply(socket, kind, report_sequence(message), facts.mgmt->report_waits.*wait);
}

int tell_of(c2ms_sess *sess, int (*tell_facts)(const report_facts &)) {
  if (sess == nullptr) return -1;
  if (sess->mgmt == nullptr) return -2;
  return tell_facts(report_facts_of(sess));
}

}  // namespace

int c2ms_auth_ping(const report_facts &facts) {
  return tell(facts, report_kind::ping, &report_waits::ping_ms);
}
int c2ms_auth_playbgn(const report_facts &facts) {
  return tell(facts, report_kind::play_begin, &report_waits::reply_ms);
}
int c2ms_auth_playend(const report_facts &facts) {
  return tell(facts, report_kind::play_end, &report_waits::reply_ms);
}
int c2ms_auth_playalive(const report_facts &facts) {
  return tell(facts, report_kind::play_alive, nullptr);
}

int c2ms_auth_ping(c2ms_sess *sess) {
  return tell_of(sess, c2ms_auth_ping);
}
int c2ms_auth_playbgn(c2ms_sess *sess) {
  return tell_of(sess, c2ms_auth_playbgn);
}
int c2ms_auth_playend(c2ms_sess *sess) {
  return tell_of(sess, c2ms_auth_playend);
}
int c2ms_auth_playalive(c2ms_sess *sess) {
  return tell_of(sess, c2ms_auth_playalive);
}

int c2ms_auth_ping_encode(c2ms_sess *sess, void *buf, int len) {
  return encode_report(sess, report_kind::ping, report_body::clear, buf, len);
}
int c2ms_auth_playbgn_encode(c2ms_sess *sess, void *buf, int len) {
  return encode_report(sess, report_kind::play_begin, report_body::clear, buf, len);
}
int c2ms_auth_playend_encode(c2ms_sess *sess, void *buf, int len) {
  return encode_report(sess, report_kind::play_end, report_body::clear, buf, len);
}
int c2ms_auth_playalive_encode(c2ms_sess *sess, void *buf, int len) {
  return encode_report(sess, report_kind::play_alive, report_body::clear, buf, len);
}

int c2ms_auth_ping_decode(const void *buf, int len) {
  return decode_report_reply(report_kind::ping, buf, len);
}
int c2ms_auth_playbgn_decode(const void *buf, int len) {
  return decode_report_reply(report_kind::play_begin, buf, len);
}
int c2ms_auth_playend_decode(const void *buf, int len) {
  return decode_report_reply(report_kind::play_end, buf, len);
}
