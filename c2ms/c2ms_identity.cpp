// Who this device is: ids, hardware id, addresses. Part of c2ms_mgmt.h.
#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cstring>

#include "adif/tsock.h"
#include "c2ms/c2ms_mgmt.h"
#include "c2ms/c2ms_time.h"

namespace {

constexpr int max_interfaces = 6;
constexpr int64_t ask_again_us = 1'000'000;

void set_local_ip(c2ms_mgmt *mgmt, uint32_t address) {
  std::memset(mgmt->local_ip_text, 0, sizeof mgmt->local_ip_text);
  inet_ntop(AF_INET, &address, mgmt->local_ip_text, sizeof mgmt->local_ip_text);
  mgmt->local_ip = address;
}

void read_interfaces(c2ms_mgmt *mgmt) {
  sock_interface table[max_interfaces];
  bool preferred = false;
  // Backwards, so that the lowest-numbered interface of a kind has the last word.
  for (int i = get_selfaddr(table, max_interfaces) - 1; i >= 0; --i) {
    const sock_interface &entry = table[i];
    if (strncasecmp(entry.name, "vir", 3) == 0) continue;
    if (entry.link == SOCK_LINK_ETHERNET) {
      std::memset(mgmt->hid, 0, sizeof mgmt->hid);
      std::memcpy(mgmt->hid, entry.hwaddr, sizeof entry.hwaddr);
      if (!preferred) set_local_ip(mgmt, entry.address);
    } else if (entry.link == SOCK_LINK_PPP || entry.link == SOCK_LINK_TUNNEL) {
      set_local_ip(mgmt, entry.address);
      preferred = true;
    }
  }
}

void ask_system(c2ms_mgmt *mgmt) REQUIRES(mgmt->identity_lock) {
  mgmt->identity_asked_us = c2ms::now_us();
  if (std::any_of(mgmt->hid, mgmt->hid + 6, [](uint8_t byte) { return byte != 0; })) return;
  read_interfaces(mgmt);
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

c2ms::identity c2ms::current_identity(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->identity_lock);
  const bool known = std::strlen(mgmt->local_ip_text) > 1;
  if (!known && now_us() - mgmt->identity_asked_us > ask_again_us) ask_system(mgmt);
  identity who;
  std::memcpy(who.local_ip, mgmt->local_ip_text, sizeof who.local_ip);
  std::memcpy(who.hid, mgmt->hid, sizeof who.hid);
  return who;
}

uint64_t c2ms_uid(c2ms_mgmt *mgmt) {
  return mgmt == nullptr ? 0 : uint64_t{mgmt->uid_high} << 32 | mgmt->uid_low;
}

const uint8_t *c2ms_hid(c2ms_mgmt *mgmt) {
  static const uint8_t none[21] = {};
  return mgmt == nullptr ? none : mgmt->hid;
}

const char *c2ms_localip(c2ms_mgmt *mgmt) {
  return mgmt == nullptr ? "" : mgmt->local_ip_text;
}

const char *c2ms_natip(c2ms_mgmt *mgmt) {
  return mgmt == nullptr ? "" : inet_ntoa(in_addr{mgmt->local_ip});
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
