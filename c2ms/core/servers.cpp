// See servers.h.
#include "c2ms/core/servers.h"

#include <cstring>

#include "adif/kalloc.h"

using namespace c2ms;

namespace {

c2ms_server *find_server(c2ms_sess *sess, uint32_t addr, uint32_t port, uint8_t type)
    REQUIRES(sess->list_lock) {
  for (int i = 0; i < sk_num(sess->server_list); ++i) {
    auto *const server = static_cast<c2ms_server *>(sk_value(sess->server_list, i));
    if (server->addr == addr && server->port == port && server->type == type) return server;
  }
  return nullptr;
}

c2ms_server *new_server(c2ms_sess *sess, uint32_t addr, uint32_t port, uint8_t type)
    REQUIRES(sess->list_lock) {
  auto *const server = static_cast<c2ms_server *>(kzalloc_dbg(sizeof(c2ms_server)));
  if (server == nullptr) return nullptr;
  server->addr = addr;
  server->port = port;
  server->type = type;
  if (sk_push(sess->server_list, server) > 0) return server;
  kfree_dbg(server);
  return nullptr;
}

}  // namespace

int c2ms_sess_server_add(c2ms_sess *sess, const char *name, uint32_t addr, uint32_t port,
                         uint8_t type) {
  if (sess == nullptr) return -1;
  const adif::Guard lock(sess->list_lock);
  c2ms_server *server = find_server(sess, addr, port, type);
  if (server == nullptr) server = new_server(sess, addr, port, type);
  if (server == nullptr) return -2;
  ++server->count;
  if (name != nullptr && *name != '\0') {
    std::memset(server->name, 0, sizeof server->name);
    std::strncpy(server->name, name, sizeof server->name - 1);
  }
  return 0;
}

c2ms_server *c2ms_sess_server_get(c2ms_sess *sess, uint32_t addr, uint32_t port, uint8_t type) {
  if (sess == nullptr) return nullptr;
  const adif::Guard lock(sess->list_lock);
  return find_server(sess, addr, port, type);
}

int c2ms_sess_server_clear(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  const adif::Guard lock(sess->list_lock);
  while (void *server = sk_pop(sess->server_list)) kfree_dbg(server);
  return 0;
}

bool c2ms_sess_server_lists(c2ms_sess *sess, uint32_t addr, uint32_t port) {
  const adif::Guard lock(sess->list_lock);
  for (int i = 0; i < sk_num(sess->server_list); ++i) {
    const auto *const server = static_cast<const c2ms_server *>(sk_value(sess->server_list, i));
    const bool same = server->addr == addr && server->port == port;
    if (same && (server->type & node_serves_list) != 0) return true;
  }
  return false;
}
