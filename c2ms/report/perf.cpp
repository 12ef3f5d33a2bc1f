// See perf.h.
#include "c2ms/report/perf.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>

#include "adif/tsock.h"
#include "c2ms/report/report.h"

namespace {

using namespace c2ms;

int encode(const report_facts &facts, report_kind kind, uint8_t (&message)[report_buffer_bytes]) {
  return encode_report(facts, kind, report_body::enciphered, report_time(), message,
                       sizeof message);
}

// Between two waits: nothing new is begun while the context is being cleaned up.
bool cleaning_up(const report_facts &facts) {
  return facts.mgmt->closing.load();
}

int send_message(const report_facts &facts, report_kind kind, const ReportSocket &socket) {
  const report_waits &waits = facts.mgmt->report_waits;
  if (sock_write_ready(socket.fd(), waits.connect_ms) != 1) return -300;
  uint8_t message[report_buffer_bytes];
  const int length = encode(facts, kind, message);
  if (length < 0) return -100;
  return tcp_send(socket.fd(), message, length, waits.send_ms, nullptr) == length ? 0 : -400;
}

// The server's reply to a play begin: a length that counts itself, then the rest.
int receive_reply(const report_facts &facts, const ReportSocket &socket) {
  const int wait_ms = facts.mgmt->report_waits.reply_ms;
  uint8_t length[report_length_bytes], reply[report_buffer_bytes];
  if (cleaning_up(facts)) return -500;
  if (tcp_receive(socket.fd(), length, sizeof length, wait_ms, nullptr) != sizeof length)
    return -500;
  const int rest = reply_bytes_left(length);
  if (rest < 0) return rest;
  if (cleaning_up(facts)) return -600;
  std::memcpy(reply, length, sizeof length);
  uint8_t *const behind = reply + sizeof length;
  if (tcp_receive(socket.fd(), behind, rest, wait_ms, nullptr) != rest) return -600;
  return decode_report_reply(report_kind::play_begin, reply, report_length_bytes + rest);
}

int tell(const report_facts &facts, report_kind kind, bool wants_reply) {
  if (facts.mgmt == nullptr) return -2;
  int error = 0;
  const ReportSocket socket(tcp_nb_connect2(facts.mgmt->perf_server_ip, report_port, &error));
  if (!socket.valid() || error < 0) return -200;
  if (const int failed = send_message(facts, kind, socket); failed != 0) return failed;
  return wants_reply ? receive_reply(facts, socket) : 0;
}

int tell_of(c2ms_sess *sess, int (*tell_facts)(const report_facts &)) {
  if (sess == nullptr) return -1;
  if (sess->mgmt == nullptr) return -2;
  return tell_facts(report_facts_of(sess));
}

}  // namespace

int c2ms_perf_playbgn(const report_facts &facts) {
  return tell(facts, report_kind::play_begin, true);
}
int c2ms_perf_playend_bgn(const report_facts &facts) {
  return tell(facts, report_kind::play_begin, false);
}
int c2ms_perf_playend(const report_facts &facts) {
  return tell(facts, report_kind::play_end, false);
}

int c2ms_perf_playalive(const report_facts &facts) {
  if (facts.mgmt == nullptr) return -2;
  const ReportSocket socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return -100;
  uint8_t message[report_buffer_bytes];
  const int length = encode(facts, report_kind::play_alive, message);
  if (length < 0) return -200;
  if (!connect_datagrams(socket, facts.mgmt->perf_server_ip)) return -300;
  return send(socket.fd(), message, static_cast<size_t>(length), MSG_NOSIGNAL) == length ? 0 : -300;
}

int c2ms_perf_playbgn(c2ms_sess *sess) {
  return tell_of(sess, c2ms_perf_playbgn);
}
int c2ms_perf_playend_bgn(c2ms_sess *sess) {
  return tell_of(sess, c2ms_perf_playend_bgn);
}
int c2ms_perf_playend(c2ms_sess *sess) {
  return tell_of(sess, c2ms_perf_playend);
}
int c2ms_perf_playalive(c2ms_sess *sess) {
  return tell_of(sess, c2ms_perf_playalive);
}

int c2ms_perf_playbgn_encode(c2ms_sess *sess, void *buf, int len) {
  return encode_report(sess, report_kind::play_begin, report_body::enciphered, buf, len);
}
int c2ms_perf_playend_encode(c2ms_sess *sess, void *buf, int len) {
  return encode_report(sess, report_kind::play_end, report_body::enciphered, buf, len);
}
int c2ms_perf_playalive_encode(c2ms_sess *sess, void *buf, int len) {
  return encode_report(sess, report_kind::play_alive, report_body::enciphered, buf, len);
}

int c2ms_perf_playbgn_decode(const void *buf, int len) {
  return decode_report_reply(report_kind::play_begin, buf, len);
}
