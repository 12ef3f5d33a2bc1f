// See unit.h.
#include "c2ms/fetch/unit.h"

#include <algorithm>
#include <cstring>

#include "adif/kalloc.h"
#include "adif/tsock.h"
#include "c2ms/core/identity.h"
#include "c2ms/core/pooled.h"
#include "c2ms/core/time.h"
#include "c2ms/ring/bind.h"
#include "c2ms/wire/pdu.h"

namespace {

void clear_progress(c2ms_unit *unit) {
  emptyFrame(unit->frame);
  unit->response = {};
  unit->received = 0;
  unit->filled_pack = false;
  unit->is_out = false;
  unit->sent_time = unit->first_time = unit->end_time = {};
}

int build_control(c2ms_node *node, c2ms_unit *unit, uint32_t command) {
  if (node == nullptr) return -1;
  if (unit == nullptr) return -2;
  if (node->session == nullptr) return -3;
  unit->is_download = 0;
  std::memset(unit->fid, 0, sizeof unit->fid);
  unit->range_offset = 0;
  unit->range_length = 0;
  unit->range_flag = 0;
  c2ms_pdu_init(node->session, &unit->request, command);
  const int length =
      c2ms_pdu_encode(&unit->request, unit->request_bytes, sizeof unit->request_bytes);
  unit->request_length = static_cast<uint32_t>(std::max(length, 0));
  clear_progress(unit);
  unit->state = UNIT_INIT;
  unit->node_id = node->node_id;
  unit->node = node;
  unit->session_id = node->session_id;
  unit->session = node->session;
  unit->library = node->library;
  return 0;
}

void build_download_request(c2ms_unit *unit) {
  c2ms_pdu &request = unit->request;
  c2ms_pdu_init(unit->session, &request, C2MS_GET_MEDIA_REQ);
  std::memcpy(request.fid, unit->fid, sizeof request.fid);
  request.range_offset = unit->range_offset;
  request.range_length = unit->range_length;
  request.range_flag = unit->range_flag;
  const int length = c2ms_pdu_encode(&request, unit->request_bytes, sizeof unit->request_bytes);
  unit->request_length = static_cast<uint32_t>(std::max(length, 0));
}

}  // namespace

int c2ms_unit_init(c2ms_unit *unit) {
  if (unit == nullptr) return -1;
  c2ms::construct_once(unit);
  if (unit->frame == nullptr) unit->frame = createFrame(c2ms::unit_frame_bytes);
  clear_progress(unit);
  unit->unit_id = 0;
  unit->state = UNIT_NULL;
  unit->is_download = 0;
  unit->range_offset = 0;
  unit->range_length = 0;
  unit->range_flag = 0;
  unit->pack_index = unit->first_index = -1;
  unit->run_packs = unit->pack_bytes = unit->skip = 0;
  unit->generation = 0;
  unit->redundant = false;
  unit->ahead = false;
  unit->meant_for = 0;
  unit->request_length = 0;
  unit->pack = nullptr;
  unit->node_id = 0;
  unit->node = nullptr;
  unit->session_id = 0;
  unit->session = nullptr;
  unit->library = nullptr;
  return 0;
}

c2ms_unit *c2ms_unit_fetch(c2ms_sess *session) {
  if (session == nullptr || session->mgmt == nullptr) return nullptr;
  c2ms_mgmt *const mgmt = session->mgmt;
  c2ms_unit *const unit = c2ms::fetch_record(mgmt->unit_pool, c2ms_unit_init);
  if (unit == nullptr) return nullptr;
  unit->unit_id = c2ms_unitid(mgmt);
  unit->session_id = session->sess_id;
  unit->session = session;
  unit->library = mgmt;
  return unit;
}

int c2ms_unit_recycle(c2ms_unit *unit) {
  if (unit == nullptr) return -1;
  unit->state = UNIT_NULL;
  c2ms_pack_release_unit(unit);
  unit->pack_index = -1;
  unit->run_packs = 0;
  c2ms_mgmt *const mgmt = unit->library;
  return c2ms::return_record(mgmt == nullptr ? nullptr : mgmt->unit_pool, unit, c2ms_unit_free);
}

int c2ms_unit_free(c2ms_unit *unit) {
  if (unit == nullptr) return -1;
  deleteFrame(&unit->frame);
  unit->~c2ms_unit();
  kfree_dbg(unit);
  return 0;
}

int c2ms_unit_init_srvlist(c2ms_node *node, c2ms_unit *unit) {
  return build_control(node, unit, C2MS_GET_SRVLIST_REQ);
}

int c2ms_unit_init_descmedia(c2ms_node *node, c2ms_unit *unit) {
  return build_control(node, unit, C2MS_DESC_MEDIA_REQ);
}

int c2ms_unit_init_download(c2ms_sess *session, c2ms_unit *unit) {
  if (session == nullptr) return -1;
  if (unit == nullptr) return -2;
  unit->is_download = 1;
  build_download_request(unit);
  clear_progress(unit);
  unit->state = UNIT_INIT;
  unit->node = nullptr;
  unit->node_id = 0;
  return 0;
}

int c2ms_unit_verify(c2ms_unit *unit) {
  if (unit == nullptr) return 0;
  if (unit->is_download == 0) return 1;
  c2ms_pack *const pack = unit->pack.load();
  if (pack == nullptr) return 0;
  const adif::Guard lock(pack->lock);
  return c2ms_unit_verify_in(unit, pack) ? 1 : 0;
}

bool c2ms_unit_verify_in(c2ms_unit *unit, c2ms_pack *pack) {
  if (unit->pack.load() != pack) return false;  // first: a pack that was lost is not looked at
  const c2ms_cache *const cache = pack->cache;
  if (cache == nullptr) return false;
  if (unit->generation != cache->generation.load()) return false;
  if (pack->index != unit->pack_index) return false;
  if (pack->state == pack_idle || pack->state == pack_ready) return false;
  const auto end = pack->units + pack->unit_count;
  if (std::find(pack->units, end, unit) == end) return false;
  const int32_t first = cache->first_index.load();
  return unit->pack_index >= first && unit->pack_index - first < cache->packnum.load();
}

int c2ms_unit_send(c2ms_unit *unit, int fd) {
  if (unit == nullptr) return -1;
  if (unit->node == nullptr) return -2;
  if (unit->state != UNIT_INIT) return unit_not_sendable;
  if (c2ms_unit_verify(unit) == 0) return unit_not_wanted;
  const int length = static_cast<int>(unit->request_length);
  // An idle socket takes these few bytes at once; one that does not is no node to download from.
  if (length < 1 || tcp_nb_send(fd, unit->request_bytes, length) != length)
    return unit_socket_failed;
  unit->first_time = unit->end_time = {};
  const int64_t now = c2ms::now_us();
  unit->sent_time = c2ms::to_tv(now);
  unit->node->last_active_at_us = now;
  unit->state = UNIT_SENT;
  return 0;
}

int c2ms_unit_cmp_unit_by_offset(const void *a, const void *b) {
  if (a == nullptr || b == nullptr) return -1;
  const uint64_t first = static_cast<const c2ms_unit *>(a)->range_offset;
  const uint64_t second = static_cast<const c2ms_unit *>(b)->range_offset;
  return first < second ? -1 : (first > second ? 1 : 0);
}

const char *c2ms::unit_state_name(uint8_t state) {
  switch (state) {
    case UNIT_NULL:
      return "UNIT_NULL";
    case UNIT_INIT:
      return "UNIT_INIT";
    case UNIT_SENT:
      return "UNIT_SENT";
    case UNIT_GETHDR:
      return "UNIT_GETHDR";
    case UNIT_GETBODY:
      return "UNIT_GETBODY";
    case UNIT_GETPAYLOAD:
      return "UNIT_GETPAYLOAD";
    case UNIT_END:
      return "UNIT_END";
    default:
      return "Unknown";
  }
}

bool c2ms::is_short_answer(const c2ms_unit &unit) {
  return unit.response.payload_length < unit.range_length;
}
