// See known.h.
#include "c2ms/core/known.h"

#include <algorithm>

#include "c2ms/core/time.h"

namespace c2ms {

namespace {

constexpr int64_t remembered_us = 300'000'000;

bool is_of(const known_record &known, const c2ms_sess *sess) {
  return known.at_us != 0 && known.entry_ip == sess->entry_ip && known.entry_port == sess->port;
}

known_record *find(const c2ms_sess *sess, uint32_t ip, uint32_t port)
    REQUIRES(sess->mgmt->known_lock) {
  for (known_record &known : sess->mgmt->known) {
    if (is_of(known, sess) && known.ip == ip && known.port == port) return &known;
  }
  return nullptr;
}

}  // namespace

void remember_server(const c2ms_sess *sess, uint32_t ip, uint32_t port) {
  if (sess->entry_ip == 0) return;
  const adif::Guard lock(sess->mgmt->known_lock);
  known_record *place = find(sess, ip, port);
  if (place == nullptr) {
    place = std::min_element(std::begin(sess->mgmt->known), std::end(sess->mgmt->known),
                             [](const auto &a, const auto &b) { return a.at_us < b.at_us; });
  }
  *place = {sess->entry_ip, sess->port, ip, port, now_us()};
}

void forget_server(const c2ms_sess *sess, uint32_t ip, uint32_t port) {
  const adif::Guard lock(sess->mgmt->known_lock);
  if (known_record *const known = find(sess, ip, port)) *known = {};
}

std::array<known_server, max_list_entries> servers_known_to(const c2ms_sess *sess) {
  std::array<known_server, max_list_entries> found{};
  size_t count = 0;
  const int64_t oldest = now_us() - remembered_us;
  const adif::Guard lock(sess->mgmt->known_lock);
  for (const known_record &known : sess->mgmt->known) {
    if (count == found.size()) break;
    if (is_of(known, sess) && known.at_us > oldest) found[count++] = {known.ip, known.port};
  }
  return found;
}

}  // namespace c2ms
