// Decides what the media server answers to a request: the bytes of the PDU and the media bytes that
// follow, with faults of content. The sender adds the faults of the stream (cuts, stalls, ...;
// testing/server_loop.h). No sockets, no state.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "testing/faults.h"
#include "testing/files.h"
#include "testing/wire.h"

namespace refserver {

/// What an answer depends on besides the request.
struct service {
  std::vector<list_entry> nodes{};   ///< as listed, in order
  list_entry self{};                 ///< the server that answers
  const media_file *file = nullptr;  ///< of the request's id; NULL: unknown
  bool encipher = false;
  bool check_auth = true;
  std::array<uint8_t, 16> auth{};
  int32_t stamp = 0;
  uint32_t keyid = 0;
};

struct reply {
  bytes pdu{};
  uint32_t result = 0;
  const media_file *file = nullptr;  ///< source of the payload
  uint64_t position = 0;
  uint64_t payload = 0;  ///< media bytes behind the PDU
};

/// Answers `r`. Result 30 without the right auth, stamp and key id, 10 for an unknown file. `order`
/// (may be NULL) is the fault to commit; kinds that are not about content change nothing here.
reply respond(const request &r, const service &s, const fault *order);

}  // namespace refserver
