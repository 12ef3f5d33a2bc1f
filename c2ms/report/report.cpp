// See report.h.
#include "c2ms/report/report.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "adif/byteiter.h"
#include "c2ms.h"
#include "c2ms/core/identity.h"
#include "c2ms/ring/cache.h"
#include "crypto/des.h"

namespace c2ms {

namespace {

constexpr uint16_t report_version = 2;

// The bodies. Their one other description is for people, in docs/protocol.md.
constexpr report_field play_begin_fields[] = {
    {"oemid", &report_facts::oemid},
    {"vendorid", &report_facts::vendorid},
    {"version", &report_facts::version},
    {"build_time", &report_facts::build_time},
    {"hid", &report_facts::hid},
    {"uid", &report_facts::uid},
    {"sess_id", &report_facts::sess_id},
    {"token", &report_facts::token},
    {"fid", &report_facts::fid},
    {"local_ip", &report_facts::local_ip},
    {"keyid", &report_facts::keyid},
    {"stamp", &report_facts::stamp},
    {"media_type", &report_facts::media_type},
    {"media_size", &report_facts::media_size},
    {"open_time", &report_facts::open_time},
    {"media_name", &report_facts::media_name},
};

constexpr report_field progress_fields[] = {
    {"hid", &report_facts::hid},
    {"uid", &report_facts::uid},
    {"sess_id", &report_facts::sess_id},
    {"token", &report_facts::token},
    {"fid", &report_facts::fid},
    {"seek_num", &report_facts::seek_num},
    {"total_bytes", &report_facts::total_bytes},
    {"recv_time", &report_facts::recv_time},
    {"realtime_speed", &report_facts::realtime_speed},
    {"open_time", &report_facts::open_time},
    {"close_time", &report_facts::close_time},
    {"read_pos", &report_facts::read_pos},
    {"average_speed", &report_facts::average_speed},
};

// Writes one field; false when it does not fit.
struct put_field {
  byte_iter *out;
  const report_facts &facts;

  bool operator()(uint32_t report_facts::*number) const {
    return iter_set_uint32BE(out, facts.*number) == 0;
  }
  bool operator()(uint64_t report_facts::*number) const {
    return iter_set_uint64BE(out, facts.*number) == 0;
  }
  template <size_t size>
  bool operator()(std::array<uint8_t, size> report_facts::*id) const {
    return iter_set_bytes(out, (facts.*id).data(), size) == static_cast<int>(size);
  }
  bool operator()(std::array<char, 37> report_facts::*text) const {
    const auto length = static_cast<int32_t>(strnlen((facts.*text).data(), (facts.*text).size()));
    return iter_set_uint16BE(out, static_cast<uint32_t>(length)) == 0 &&
           iter_set_bytes(out, (facts.*text).data(), length) == length;
  }
};

// The clear body in `scratch`; its length, or -1.
int encode_body(const report_facts &facts, report_kind kind, std::span<uint8_t> scratch) {
  byte_iter out;
  iter_set_text(&out, scratch.data(), static_cast<int32_t>(scratch.size()));
  for (const report_field &field : report_fields(kind)) {
    if (!std::visit(put_field{&out, facts}, field.from)) return -1;
  }
  return out.pos;
}

// Enciphers a body in place; its new length, or -1.
int encipher_body(const c2ms_mgmt *mgmt, std::span<uint8_t> scratch, int length) {
  if (static_cast<size_t>(length) + 8 > scratch.size()) return -1;
  des_context key;
  DesSetKey(&key, reinterpret_cast<const uint8_t *>(mgmt->des_key));
  return DesEncrypt(&key, scratch.data(), length, scratch.data(), &length) == 0 ? length : -1;
}

uint32_t header_value(const report_facts &facts, report_kind kind, uint32_t now) {
  const bool timed = kind == report_kind::ping || kind == report_kind::play_end;
  return timed ? now : facts.sess_id;
}

uint32_t bytes_per_ms(double speed) {
  return static_cast<uint32_t>(std::clamp(speed, 0.0, 4294967295.0));
}

uint64_t token_number(const uint8_t (&token)[8]) {
  uint64_t number = 0;
  for (const uint8_t byte : token) number = number << 8 | byte;
  return number;
}

}  // namespace

report_facts report_facts_of(c2ms_sess *sess) {
  c2ms_mgmt *const mgmt = sess->mgmt;
  report_facts facts;
  facts.mgmt = mgmt;
  facts.oemid = mgmt->oemid;
  facts.vendorid = mgmt->vendorid;
  facts.version = mgmt->version;
  facts.build_time = static_cast<uint32_t>(mgmt->build_time);
  const identity who = current_identity(mgmt);
  std::copy_n(who.hid, facts.hid.size(), facts.hid.begin());
  facts.uid = c2ms_uid(mgmt);
  in_addr address{};
  if (inet_pton(AF_INET, who.local_ip, &address) == 1) facts.local_ip = ntohl(address.s_addr);

  facts.sess_id = sess->sess_id;
  facts.token = token_number(sess->token);
  std::copy_n(sess->fid, facts.fid.size(), facts.fid.begin());
  facts.keyid = sess->keyid;
  facts.stamp = sess->stamp;
  facts.open_time = static_cast<uint64_t>(sess->open_time);
  facts.close_time = static_cast<uint64_t>(sess->close_time.load());
  if (sess->desc_count != 0) {  // until then the description is being written
    facts.media_type = sess->media_type;
    facts.media_size = sess->media_size;
    std::copy_n(sess->media_name, facts.media_name.size(), facts.media_name.begin());
  }
  facts.seek_num = sess->seek_num;
  facts.realtime_speed = bytes_per_ms(c2ms_sess_realtime_recvspeed(sess));
  facts.average_speed = bytes_per_ms(c2ms_sess_average_recvspeed(sess));
  facts.read_pos = c2ms_cache_readpos(sess->cache.load());
  facts.total_bytes = sess->total_bytes;
  facts.recv_time = sess->recv_time;
  return facts;
}

std::span<const report_field> report_fields(report_kind kind) {
  switch (kind) {
    case report_kind::ping:
      return {};
    case report_kind::play_begin:
      return play_begin_fields;
    default:
      return progress_fields;
  }
}

int encode_report(const report_facts &facts, report_kind kind, report_body body, uint32_t now,
                  void *buf, int len) {
  if (buf == nullptr || len < 1) return -2;
  if (facts.mgmt == nullptr) return -3;
  uint8_t scratch[report_buffer_bytes] = {};
  int length = encode_body(facts, kind, scratch);
  if (length >= 0 && body == report_body::enciphered)
    length = encipher_body(facts.mgmt, scratch, length);
  if (length < 0 || length > len - report_header_bytes) return -100;
  byte_iter out;
  iter_set_text(&out, buf, len);
  iter_set_uint32BE(&out, static_cast<uint32_t>(report_header_bytes + length));
  iter_set_uint32BE(&out, static_cast<uint32_t>(kind));
  iter_set_uint32BE(&out, facts.mgmt->next_message.fetch_add(1));
  iter_set_uint16BE(&out, report_version);
  iter_set_uint32BE(&out, header_value(facts, kind, now));
  iter_set_bytes(&out, scratch, length);
  return out.pos;
}

int encode_report(c2ms_sess *sess, report_kind kind, report_body body, void *buf, int len) {
  if (sess == nullptr) return -1;
  if (buf == nullptr || len < 1) return -2;
  if (sess->mgmt == nullptr) return -3;
  return encode_report(report_facts_of(sess), kind, body, report_time(), buf, len);
}

uint32_t report_time() {
  return static_cast<uint32_t>(std::time(nullptr));
}

ReportSocket::~ReportSocket() {
  if (valid()) close(fd_);
}

bool connect_datagrams(const ReportSocket &socket, uint32_t address) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = address;
  name.sin_port = htons(report_port);
  return connect(socket.fd(), reinterpret_cast<const sockaddr *>(&name), sizeof name) == 0;
}

}  // namespace c2ms
