// Who this device is, as requests and reports carry it, and the ids that a context hands out.
#pragma once

#include <cstddef>
#include <cstdint>

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

/// The next id, never 0 for a context, never handed out twice; 0 for NULL. Any thread.
uint32_t c2ms_nodeid(c2ms_mgmt *mgmt);
uint32_t c2ms_sessid(c2ms_mgmt *mgmt);
uint32_t c2ms_unitid(c2ms_mgmt *mgmt);

/// The next sequence id of the session's requests; 0 for NULL. Any thread.
uint32_t c2ms_sess_pduid(c2ms_sess *sess);

namespace c2ms {

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
