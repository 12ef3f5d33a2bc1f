// See library.h.
#include "support/library.h"

#include <arpa/inet.h>

#include <utility>

#include "adif/bmempool.h"
#include "c2ms/core/records.h"

namespace support {

void shorten_waits(c2ms_mgmt *mgmt) {
  mgmt->build_tcp_max_time = 1;
  mgmt->conn_check_time = 1;
  mgmt->sess_check_time = 1;
  mgmt->patience.reporting_check_s = 1;
  mgmt->report_waits = {.ping_ms = 50, .reply_ms = 50, .connect_ms = 50, .send_ms = 50};
  // Nobody is there; and who is on the loopback's first address is not ours.
  mgmt->agent_ip = mgmt->perf_server_ip = inet_addr("127.66.66.66");
}

Library::Library(int32_t memory, const char *conf) {
  c2ms_set_diag(nullptr, nullptr);
  static const uint8_t hid[20] = {2, 0, 0, 0, 0, 1};
  mgmt_ = c2ms_mgmt_init(conf, 1, 0, hid, memory);
  idle_ = idle_of(mgmt_);
}

int Library::clean() {
  c2ms_mgmt *const mgmt = std::exchange(mgmt_, nullptr);
  return mgmt != nullptr ? c2ms_mgmt_clean(mgmt) : 0;
}

}  // namespace support
