// The management context: start-up, tear-down, configuration, identity, memory and ids. The
// player's part (c2ms_mgmt_init, c2ms_mgmt_clean, c2ms_mgmt_readconf, the identity getters) is
// described in c2ms.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "c2ms.h"
#include "c2ms/core/records.h"

/// Finds hardware id and local address from the network interfaces, unless a hardware id is set
/// already: the address of the first Ethernet interface whose name does not begin with "vir", and
/// the local address of the first interface of link type 4 or 6 if there is one, else of that
/// Ethernet interface. Any thread.
void c2ms_mgmt_readhid(c2ms_mgmt *mgmt);

/// Bytes from a textual hardware address. At most out_len bytes; any character that is no
/// hexadecimal digit ends a byte (two in a row store a zero byte), of more than two digits the last
/// two count.
void parse_hwaddr(uint8_t *out, int out_len, const char *text, int text_len);

/// Zeroed memory from the arena, or from the heap when the arena can't serve; NULL when neither
/// can. Any thread. The caller gives it back with c2ms_mem_free: 0, -1 (no context), -2 (no
/// pointer).
void *c2ms_mem_alloc(c2ms_mgmt *mgmt, int32_t size);
int c2ms_mem_free(c2ms_mgmt *mgmt, void *ptr);

/// Bytes of the largest block that the arena can serve now.
int32_t c2ms_mem_avail(c2ms_mgmt *mgmt);

/// The next id, never 0 for a context, never handed out twice; 0 for NULL. Any thread.
uint32_t c2ms_nodeid(c2ms_mgmt *mgmt);
uint32_t c2ms_sessid(c2ms_mgmt *mgmt);
uint32_t c2ms_unitid(c2ms_mgmt *mgmt);

namespace c2ms {

/// A copy of the configured entry server's name.
host_name entry_server(c2ms_mgmt *mgmt);

/// What requests carry of this device. Asks the interfaces again (at most once a second) while no
/// local address is known.
struct identity {
  char local_ip[16];
  uint8_t hid[20];
  uint32_t address;  ///< `local_ip` in network order
};
identity current_identity(c2ms_mgmt *mgmt);
/// The same without asking.
identity known_identity(c2ms_mgmt *mgmt);

/// Sets the hardware id, whatever its bytes: the interfaces are not asked for one any more.
void set_hardware_id(c2ms_mgmt *mgmt, const uint8_t *bytes, size_t size);

}  // namespace c2ms
