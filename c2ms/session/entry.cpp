// See entry.h.
#include "c2ms/session/entry.h"

#include <arpa/inet.h>

#include <cstring>
#include <utility>

#include "adif/tsock.h"
#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/context.h"
#include "c2ms/core/known.h"
#include "c2ms/core/lookup.h"
#include "c2ms/core/registry.h"
#include "c2ms/core/servers.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/node_list.h"

using namespace c2ms;

uint32_t c2ms::resolve_entry(const c2ms_sess *sess) {
  const auto goes_on = [sess] {
    const int32_t opened = sess->opened;
    return is_live(sess) && (opened == 0 || opened == C2MS_OPENING);
  };
  uint32_t address = look_up(sess->host, goes_on);
  if (address == 0) address = look_up(entry_server(sess->mgmt).text, goes_on);
  return address == SOCK_NO_ADDRESS ? 0 : address;
}

int c2ms::start_entry_exchange(c2ms_sess *sess, uint32_t address) {
  check_inside(sess);
  if (sess->entry_node != nullptr) return 0;
  c2ms_sess_server_clear(sess);
  sess->open_pending = 1;
  sess->reopened_at_us = now_us();
  sess->entry_ip = address;
  if (address == 0) return -100;
  sess->entry_node = c2ms_node_open(sess, sess->host, address, sess->port, node_serves_list, 0, 0);
  return sess->entry_node != nullptr ? 0 : -100;
}

void c2ms::open_known(c2ms_sess *sess) {
  check_inside(sess);
  for (const known_server &server : servers_known_to(sess)) {
    if (server.ip == 0) break;
    c2ms_node *const node =
        c2ms_node_open(sess, nullptr, server.ip, server.port, node_serves_media, 0, 1);
    if (node != nullptr) node->remembered = from_memory::unconfirmed;
  }
}

void c2ms::ask_entry_if_due(c2ms_sess *sess) {
  check_inside(sess);
  if (!std::exchange(sess->list_due, false)) return;
  if (sess->desc_count != 0 || sess->entry_node != nullptr || sess->status != 0) return;
  const int64_t pause_us = int64_t{first_backoff_ms} * 1000 << sess->entry_asks;
  if (now_us() - sess->reopened_at_us < pause_us || !all_failed(sess)) return;
  if (sess->entry_asks < max_entry_asks) ++sess->entry_asks;
  reopen_later(sess);
}

void c2ms::reopen_later(c2ms_sess *sess) {
  check_inside(sess);
  in_addr address{};
  if (inet_pton(AF_INET, sess->host, &address) == 1 && address.s_addr != 0) {
    start_entry_exchange(sess, address.s_addr);
    return;
  }
  if (sess->lookup_pending) return;
  c2ms_mgmt *const mgmt = sess->mgmt;
  const uint32_t id = sess->sess_id;
  host_name host{};
  std::memcpy(host.text, sess->host, sizeof sess->host);
  sess->lookup_pending = mgmt->resolver.post([mgmt, id, host] {
    const auto goes_on = [mgmt] { return !mgmt->closing; };
    uint32_t found = look_up(host.text, goes_on);
    if (found == 0) found = look_up(entry_server(mgmt).text, goes_on);
    c2ms_sess *const again = c2ms_sess_get(mgmt, id);
    if (again == nullptr) return;
    const Turn strand(again);
    if (!still_open(again, id)) return;
    again->lookup_pending = false;
    start_entry_exchange(again, found == SOCK_NO_ADDRESS ? 0 : found);
  });
}
