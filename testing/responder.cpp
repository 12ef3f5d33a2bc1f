// Makes the answers of the media server, see responder.h.
#include "testing/responder.h"

#include <algorithm>

namespace refserver {

namespace {

constexpr uint32_t plain = 0, enciphered = 1, not_found = 10, authentication_failed = 30;

// One request being answered, with kind and value of its fault (`none` without one).
struct answering {
  const request &r;
  const service &s;
  fault_kind kind = fault_kind::none;
  uint64_t value = 0;

  bool is(fault_kind k) const { return kind == k; }
  uint64_t value_or(uint64_t fallback) const { return value != 0 ? value : fallback; }
  uint32_t refusal() const;
  std::vector<list_entry> listed() const;
  bytes control_body() const;
  uint64_t payload() const;
  void garble_header(bytes &pdu) const;
};

uint32_t answering::refusal() const {
  if (is(fault_kind::refusal)) return static_cast<uint32_t>(value_or(not_found));
  if (s.check_auth && (r.auth != s.auth || r.stamp != s.stamp || r.keyid != s.keyid))
    return authentication_failed;
  return s.file == nullptr ? not_found : plain;
}

std::vector<list_entry> answering::listed() const {
  std::vector<list_entry> entries = s.nodes;
  if (is(fault_kind::list_self)) entries = {s.self};
  if (is(fault_kind::list_size)) {
    entries.resize(std::min<uint64_t>(value, UINT16_MAX));
    for (size_t i = 0; i < entries.size(); ++i)
      entries[i] = s.nodes.empty() ? s.self : s.nodes[i % s.nodes.size()];
  }
  for (list_entry &entry : entries) {
    if (is(fault_kind::list_duplicates)) entry = entries.front();
    if (!is(fault_kind::list_zero)) continue;
    entry.address = 0;
    if (value != 1) entry.port = 0;
  }
  return entries;
}

bytes answering::control_body() const {
  if (r.command == command_list) {
    const std::vector<list_entry> entries = listed();
    const uint64_t count = is(fault_kind::list_count) ? value : entries.size();
    return list_body(entries, static_cast<uint16_t>(count));
  }
  description d{
      .tag = s.file->name, .size = s.file->size, .type = s.file->type, .load = s.self.load};
  if (s.file->index != nullptr) {
    d.index_length = static_cast<uint32_t>(s.file->index->size);
    d.index = s.file->index->id;
  }
  if (is(fault_kind::desc_size)) d.size = value;
  if (is(fault_kind::desc_type)) d.type = static_cast<uint8_t>(value);
  bytes body = description_body(d);
  if (is(fault_kind::desc_truncated)) body.resize(std::min<uint64_t>(value, body.size()));
  return body;
}

uint64_t answering::payload() const {
  const uint64_t exist = s.file->existing(r.offset, r.length);
  if (is(fault_kind::payload_empty)) return 0;
  if (is(fault_kind::payload_shorter)) return exist - std::min(exist, value_or(1));
  if (is(fault_kind::payload_longer)) return std::min<uint64_t>(r.length + value_or(1), UINT32_MAX);
  return exist;
}

void answering::garble_header(bytes &pdu) const {
  uint8_t *p = pdu.data();
  switch (kind) {
    case fault_kind::wrong_command:
      return put32(p + 4, static_cast<uint32_t>(get32(p + 4) ^ value_or(0x10)));
    case fault_kind::wrong_sequence:
      return put32(p + 8, static_cast<uint32_t>(get32(p + 8) + value_or(1)));
    case fault_kind::wrong_version:
      return put16(p + 12, static_cast<uint16_t>(r.version ^ value_or(0xffff)));
    case fault_kind::total_length:
      return put32(p, static_cast<uint32_t>(value));
    case fault_kind::short_pdu:
      pdu.resize(std::min<uint64_t>(value, pdu.size()));
      if (pdu.size() >= 4) put32(pdu.data(), static_cast<uint32_t>(pdu.size()));
      return;
    default:
      return;
  }
}

// Enciphers a control body with the request's key, wrongly if ordered.
bytes cipher_body(const answering &a, bytes body) {
  const des_key key = request_key(a.r);
  if (a.is(fault_kind::cipher_garbage)) {
    body.resize((body.size() / 8 + 1) * 8);
    body.back() = 9;  // no padding count is above 8
    encipher_blocks(key, body.data(), body.size());
    return body;
  }
  bytes out = encipher(key, body);
  if (a.is(fault_kind::cipher_length)) out.resize(out.size() - 3);
  return out;
}

}  // namespace

reply respond(const request &r, const service &s, const fault *order) {
  answering a{.r = r, .s = s};
  if (order != nullptr) {
    a.kind = order->kind;
    a.value = order->value;
  }
  const bool media = r.command == command_media;
  reply out;
  out.result = a.refusal();
  bytes body;
  if (out.result == plain && media) {
    out.file = s.file;
    out.position = r.offset;
    out.payload = a.payload();
  }
  if (media) {
    body = media_body(s.self.load, r.offset, static_cast<uint32_t>(out.payload), r.flag);
  } else if (out.result == plain) {
    body = a.control_body();
    if (s.encipher || a.is(fault_kind::cipher_garbage) || a.is(fault_kind::cipher_length)) {
      out.result = enciphered;
      body = cipher_body(a, std::move(body));
    }
  }
  out.pdu = encode_response(r, out.result, body);
  a.garble_header(out.pdu);
  return out;
}

}  // namespace refserver
