// The servers that entry servers have named to a session.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// The servers that entry servers named, by the triple (address, port, type). Add: a known one
/// counts up; 0, -1 no session, -2 no memory.
int c2ms_sess_server_add(c2ms_sess *sess, const char *name, uint32_t addr, uint32_t port,
                         uint8_t type);
c2ms_server *c2ms_sess_server_get(c2ms_sess *sess, uint32_t addr, uint32_t port, uint8_t type);
int c2ms_sess_server_clear(c2ms_sess *sess);
/// True when a server of this address and port has been asked for its list.
bool c2ms_sess_server_lists(c2ms_sess *sess, uint32_t addr, uint32_t port);
