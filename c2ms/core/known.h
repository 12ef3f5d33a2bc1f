// Servers that have lately described a film, by the entry server that named them. The next film of
// the same entry server begins with them, while its own list is still on the way.
#pragma once

#include <array>
#include <cstdint>

#include "c2ms/core/records.h"

namespace c2ms {

/// A server has described a film: remembers it for some minutes. Of many the oldest is forgotten.
void remember_server(const c2ms_sess *sess, uint32_t ip, uint32_t port);

/// A server has refused, or can't be reached.
void forget_server(const c2ms_sess *sess, uint32_t ip, uint32_t port);

/// The servers to begin with; address 0 ends them.
struct known_server {
  uint32_t ip = 0, port = 0;
};
std::array<known_server, max_list_entries> servers_known_to(const c2ms_sess *sess);

}  // namespace c2ms
