// See identity.h.
#include "c2ms/core/identity.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cstring>

#include "adif/tsock.h"
#include "c2ms.h"
#include "c2ms/core/time.h"

namespace {

constexpr int max_interfaces = 6;
constexpr int64_t ask_again_us = 1'000'000;

// `identity_asked_at_us` once the hardware id is set: nobody asks again.
constexpr int64_t hid_is_set = INT64_MAX;

bool knows_address(const c2ms_mgmt *mgmt) {
  return mgmt->local_ip_text[0] != '\0';
}

// What the interfaces tell.
struct finding {
  const uint8_t *hwaddr = nullptr;
  uint32_t address = 0;
};

finding look_at(const sock_interface *table, int n) {
  finding found;
  bool preferred = false;
  // Backwards, so that the lowest-numbered interface of a kind has the last word.
  for (int i = n - 1; i >= 0; --i) {
    const sock_interface &entry = table[i];
    if (strncasecmp(entry.name, "vir", 3) == 0) continue;
    if (entry.link == SOCK_LINK_ETHERNET) {
      found.hwaddr = entry.hwaddr;
      if (!preferred) found.address = entry.address;
    } else if (entry.link == SOCK_LINK_PPP || entry.link == SOCK_LINK_TUNNEL) {
      found.address = entry.address;
      preferred = true;
    }
  }
  return found;
}

void set_hid(c2ms_mgmt *mgmt, const uint8_t *bytes, size_t size) REQUIRES(mgmt->identity_lock) {
  std::memset(mgmt->hid, 0, sizeof mgmt->hid);
  std::memcpy(mgmt->hid, bytes, std::min(size, sizeof mgmt->hid - 1));
  mgmt->identity_asked_at_us = hid_is_set;
}

// Id and address are each written once and then stay as they are: the getters hand out pointers to
// them that are read without the lock.
void ask_system(c2ms_mgmt *mgmt) REQUIRES(mgmt->identity_lock) {
  if (mgmt->identity_asked_at_us == hid_is_set) return;
  mgmt->identity_asked_at_us = c2ms::now_us();
  sock_interface table[max_interfaces];
  const finding found = look_at(table, get_selfaddr(table, max_interfaces));
  if (found.address != 0 && !knows_address(mgmt)) {
    mgmt->local_ip = found.address;
    inet_ntop(AF_INET, &found.address, mgmt->local_ip_text, sizeof mgmt->local_ip_text);
  }
  if (found.hwaddr == nullptr) return;
  const auto *const end = found.hwaddr + sizeof table->hwaddr;
  // An interface without an address of its own shows zeros: asked again later.
  if (std::any_of(found.hwaddr, end, [](uint8_t byte) { return byte != 0; }))
    set_hid(mgmt, found.hwaddr, sizeof table->hwaddr);
}

c2ms::identity copy_identity(c2ms_mgmt *mgmt) REQUIRES(mgmt->identity_lock) {
  c2ms::identity who;
  std::memcpy(who.local_ip, mgmt->local_ip_text, sizeof who.local_ip);
  std::memcpy(who.hid, mgmt->hid, sizeof who.hid);
  who.address = mgmt->local_ip;
  return who;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

uint32_t next_id(std::atomic<uint32_t> *counter) {
  const uint32_t id = counter->fetch_add(1);
  return id != 0 ? id : counter->fetch_add(1);  // 0 names nobody, after a wrap too
}

}  // namespace

void c2ms_mgmt_readhid(c2ms_mgmt *mgmt) {
  if (mgmt == nullptr) return;
  const adif::Guard lock(mgmt->identity_lock);
  ask_system(mgmt);
}

void parse_hwaddr(uint8_t *out, int out_len, const char *text, int text_len) {
  if (out == nullptr || out_len < 1) return;
  std::memset(out, 0, static_cast<size_t>(out_len));
  if (text == nullptr) return;
  int written = 0;
  uint8_t byte = 0;
  bool pending = false;
  for (int i = 0; i < text_len && written < out_len; ++i) {
    const int digit = hex_digit(text[i]);
    if (digit >= 0) {
      byte = static_cast<uint8_t>(byte << 4 | digit);
      pending = true;
      continue;
    }
    out[written++] = byte;
    byte = 0;
    pending = false;
  }
  if (pending && written < out_len) out[written] = byte;
}

uint32_t c2ms_nodeid(c2ms_mgmt *mgmt) {
  if (mgmt == nullptr) return 0;
  return next_id(&mgmt->next_node_id);
}

uint32_t c2ms_sessid(c2ms_mgmt *mgmt) {
  if (mgmt == nullptr) return 0;
  return next_id(&mgmt->next_sess_id);
}

uint32_t c2ms_unitid(c2ms_mgmt *mgmt) {
  if (mgmt == nullptr) return 0;
  return next_id(&mgmt->next_unit_id);
}

uint32_t c2ms_sess_pduid(c2ms_sess *sess) {
  if (sess == nullptr) return 0;
  return sess->next_pdu_id.fetch_add(1);
}

c2ms::identity c2ms::current_identity(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->identity_lock);
  if (!knows_address(mgmt) && now_us() - mgmt->identity_asked_at_us > ask_again_us)
    ask_system(mgmt);
  return copy_identity(mgmt);
}

c2ms::identity c2ms::known_identity(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->identity_lock);
  return copy_identity(mgmt);
}

void c2ms::set_hardware_id(c2ms_mgmt *mgmt, const uint8_t *bytes, size_t size) {
  const adif::Guard lock(mgmt->identity_lock);
  set_hid(mgmt, bytes, size);
}

uint64_t c2ms_uid(c2ms_mgmt *mgmt) {
  return mgmt == nullptr ? 0 : uint64_t{mgmt->uid_high} << 32 | mgmt->uid_low;
}

const uint8_t *c2ms_hid(c2ms_mgmt *mgmt) {
  static const uint8_t none[21] = {};
  if (mgmt == nullptr) return none;
  const adif::Guard lock(mgmt->identity_lock);
  return mgmt->identity_asked_at_us == hid_is_set ? mgmt->hid : none;
}

const char *c2ms_localip(c2ms_mgmt *mgmt) {
  if (mgmt == nullptr) return "";
  const adif::Guard lock(mgmt->identity_lock);
  return knows_address(mgmt) ? mgmt->local_ip_text : "";
}

const char *c2ms_natip(c2ms_mgmt *mgmt) {
  return mgmt == nullptr ? "" : inet_ntoa(in_addr{c2ms::known_identity(mgmt).address});
}

uint32_t c2ms_oemid(c2ms_mgmt *mgmt) {
  return mgmt == nullptr ? g_oemid : mgmt->oemid;
}
uint32_t c2ms_version(c2ms_mgmt *mgmt) {
  return mgmt == nullptr ? g_version : mgmt->version;
}
int32_t c2ms_buildtime(c2ms_mgmt *mgmt) {
  return mgmt == nullptr ? 0 : mgmt->build_time;
}
