// See node_recv.h.
#include "c2ms/fetch/node_recv.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include "c2ms/core/count.h"
#include "c2ms/core/known.h"
#include "c2ms/core/registry.h"
#include "c2ms/core/servers.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/core/wake.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/node_list.h"
#include "c2ms/fetch/node_record.h"
#include "c2ms/fetch/unit.h"
#include "c2ms/fetch/watch.h"
#include "c2ms/wire/pdu.h"

namespace {

using namespace c2ms;

bool is_unconfirmed(const c2ms_node *node) {
  return node->remembered == from_memory::unconfirmed;
}

// The entry server has refused: who was opened from memory goes, too.
void close_unconfirmed(c2ms_sess *session) {
  const chosen_nodes chosen = choose_nodes(session, is_unconfirmed);
  for (size_t i = 0; i < chosen.count; ++i) c2ms_node_close(chosen.nodes[i]);
}

// The status that a server's answer means for the session. True: it refused, and the node is gone.
bool refused(c2ms_sess *session, c2ms_node *node, uint32_t result) {
  if (is_unconfirmed(node)) {
    if (result < 2) return false;
    forget_server(session, node->ip, node->port);
    c2ms_node_close(node);
    return true;
  }
  c2ms_sess_set_status(session, static_cast<int32_t>(std::min<uint32_t>(result, INT32_MAX)));
  if (result < 2) return false;
  if (node->level == 0) close_unconfirmed(session);
  c2ms_node_close(node);
  return true;
}

int check_response(const c2ms_sess *session, const c2ms_node *node, const c2ms_unit *unit) {
  if (session == nullptr) return -1;
  if (node == nullptr) return -2;
  if (unit == nullptr) return -3;
  if (session->mgmt == nullptr) return -4;
  return unit->state == UNIT_END ? 0 : -100;
}

// The body of a control response behind its result, in the clear.
struct control_body {
  uint8_t scratch[max_pdu_bytes];
  const uint8_t *bytes = nullptr;
  int length = 0;
};

int not_understood(c2ms_node *node) {
  c2ms_node_retry(node);
  return -300;
}

// What the handling of every control response begins with. 0, or the handler's result.
int open_body(c2ms_sess *session, c2ms_node *node, c2ms_unit *unit, control_body *body) {
  const int bad = check_response(session, node, unit);
  if (bad != 0) return bad;
  const uint32_t result = unit->response.result;
  if (refused(session, node, result)) return -200;
  constexpr int offset = pdu_header_bytes + 4;
  const int length = static_cast<int>(unit->response.total_length) - offset;
  body->length = plain_body(unit->request, result, bytePointer(unit->frame) + offset, length,
                            body->scratch, &body->bytes);
  return body->length < 0 ? not_understood(node) : 0;
}

// Media nodes that never became ready make room for what a new list names.
void replace_unready(c2ms_sess *session) {
  const chosen_nodes unready = choose_nodes(session, [](const c2ms_node *node) {
    return node->state < C2MS_NODE_READY && !is_unconfirmed(node);
  });
  for (size_t i = 0; i < unready.count; ++i) c2ms_node_recycle(unready.nodes[i]);
}

uint32_t address_of(const c2ms_node *sender, const list_entry &entry) {
  return entry.address == 0 ? sender->ip : htonl(entry.address);
}

uint32_t port_of(const list_entry &entry) {
  return entry.port == 0 ? default_port : entry.port;
}

// Nodes that were opened from memory stay if the list names them.
void confirm(c2ms_sess *session, const c2ms_node *sender, std::span<const list_entry> entries) {
  const chosen_nodes chosen = choose_nodes(session, is_unconfirmed);
  for (size_t i = 0; i < chosen.count; ++i) {
    c2ms_node *const node = chosen.nodes[i];
    const auto named = std::find_if(entries.begin(), entries.end(), [&](const list_entry &entry) {
      return (entry.type & node_serves_media) != 0 && address_of(sender, entry) == node->ip &&
             port_of(entry) == node->port;
    });
    if (named == entries.end()) {
      forget_server(session, node->ip, node->port);
      c2ms_node_close(node);
      continue;
    }
    node->remembered = from_memory::confirmed;
    node->load = named->load;
  }
}

void open_listed(c2ms_sess *session, const c2ms_node *sender, const list_entry &entry) {
  const uint32_t ip = address_of(sender, entry);
  const uint32_t port = port_of(entry);
  const uint32_t level = sender->level + 1;
  uint8_t type = entry.type;
  if (level > max_level) return;
  // A server that has been asked for its list is not asked a second time.
  if (c2ms_sess_server_lists(session, ip, port)) type &= static_cast<uint8_t>(~node_serves_list);
  // (Who never served anything becomes a node all the same, whatever else its type says.)
  constexpr uint8_t served = node_serves_list | node_serves_media;
  if ((type & served) == 0 && (entry.type & served) != 0) return;
  const c2ms_node *const known = c2ms_sess_node_find(session, ip, port);
  if (known != nullptr && known->state >= C2MS_NODE_READY && is_media(known)) return;
  if (known != nullptr && known->remembered == from_memory::confirmed && known->failures == 0) {
    type &= static_cast<uint8_t>(~node_serves_media);  // it is being opened already
    if ((type & served) == 0) return;
  }
  c2ms_node_open(session, nullptr, ip, port, type, entry.load, level);
}

// After a complete list: a media node goes on to the description, any other has done its work.
int after_srvlist(c2ms_node *node) {
  if (!is_media(node)) return c2ms_node_close(node);
  c2ms_node_state_to(node, C2MS_NODE_READY);
  if (node->session->desc_count > 0) return c2ms_node_download_start_dbg(node);
  const int result = c2ms_node_desc_media(node);
  if (result < 0) c2ms_node_retry(node);
  return result;
}

int recv_control(c2ms_node *node, c2ms_unit *unit, bool list) {
  bool closed = false;
  const int result = c2ms_unit_recv_control(node, unit, GetDeviceFD(node->device), &closed);
  if (result < 0) {
    c2ms_node_retry(node);
    return result;
  }
  if (unit->state != UNIT_END) return 0;
  const int handled = list ? c2ms_node_recv_srvlist(node->session, node, unit, &closed)
                           : c2ms_node_recv_descmedia(node->session, node, unit, &closed);
  if (handled < 0) return handled;
  if (closed) return c2ms_node_close(node);
  if (list) return after_srvlist(node);
  node->failures = 0;
  ++node->ready_times;
  c2ms_node_state_to(node, C2MS_NODE_READY);
  return c2ms_node_download_start_dbg(node);
}

int next_download(c2ms_node *node) {
  if (node->state != C2MS_NODE_READY || !is_media(node)) return 0;
  const int result = c2ms_node_download_start_dbg(node);
  start_watch(node->session);
  return result;
}

struct reception {
  c2ms_unit *unit;
  int result;
  bool complete;
};

// Receives with the strand left, so that nobody waits for it while bytes are copied. The unit is
// taken inside, and the node's lock held throughout, so that nobody detaches it in between. The
// descriptor stays open: a device is closed by the thread that serves it, and that is this one.
reception receive(c2ms_node *node, int fd, StrandHold &strand) {
  const adif::Guard lock(node->download_lock);
  c2ms_unit *const unit = node->download_unit;
  strand.pause();
  const int result = c2ms_unit_recv(unit, fd);
  return {unit, result, unit->state == UNIT_END};
}

int recv_download(const node_ref &ref, rac_connection *device, StrandHold &strand) {
  c2ms_node *const node = ref.node;
  c2ms_mgmt *const mgmt = node->library;
  const int fd = GetDeviceFD(device);
  const bool broken = may_ask_ahead(node) && !ask_ahead(node);
  const reception got = receive(node, fd, strand);
  if (got.result == 0 && !got.complete && !broken) return 0;
  strand.resume();
  // The node may have been given back meanwhile: the registry is asked before its record is read.
  if (!still_there(mgmt, ref) || node->device != device) return -120;
  const int handled = got.complete ? c2ms_node_recv_getmedia(node, got.unit) : got.result;
  if (got.complete && handled < 0) return handled;
  if (got.complete && !broken) return next_download(node);
  c2ms_node_retry(node);
  return handled < 0 ? handled : unit_socket_failed;
}

// Nothing was asked: silence is life, an end or an error is the end, a byte nobody asked for is a
// failure.
int recv_idle(c2ms_node *node) {
  uint8_t byte;
  const ssize_t n = recv(GetDeviceFD(node->device), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return c2ms_node_download_start_dbg(node);
  if (!is_media(node)) return c2ms_node_recycle(node);
  return c2ms_node_retry(node);
}

// A server that owes an answer and has been silent for too long.
bool stalled(const c2ms_node *node, int64_t now) {
  const uint32_t state = node->state;
  const bool owes = state == C2MS_NODE_WAITING_GETMEDIA_RESP ||
                    state == C2MS_NODE_WAITING_DESCMEDIA_RESP ||
                    state == C2MS_NODE_WAITING_SRVLIST_RESP;
  return node->device == nullptr ||
         (owes && now - node->last_active_at_us > node->library->patience.stalled_us);
}

void account_stalled(c2ms_node *node) {
  const adif::Guard lock(node->download_lock);
  if (node->download_unit == nullptr) return;
  c2ms_node_perf_statistic(node, node->download_unit);
}

int check_list_node(c2ms_node *node, int64_t now) {
  if (node->state != C2MS_NODE_WAITING_SRVLIST_RESP) return c2ms_node_close(node);
  const int64_t allowed_us = int64_t{node->library->build_tcp_max_time} * 1'000'000;
  if (now - to_us(node->srvlist_unit.sent_time) > allowed_us) return c2ms_node_retry(node);
  rearm(node);
  return 0;
}

}  // namespace

int c2ms_node_recv(const node_ref &ref, rac_connection *device, StrandHold &strand) {
  check_inside(ref.sess);
  c2ms_node *const node = ref.node;
  if (node->state == C2MS_NODE_WAITING_GETMEDIA_RESP && node->asked_at_us == 0) {
    c2ms_node_state_to(node, C2MS_NODE_READY);
  }
  node->last_active_at_us = now_us();
  switch (node->state) {
    case C2MS_NODE_WAITING_SRVLIST_RESP:
      return recv_control(node, &node->srvlist_unit, true);
    case C2MS_NODE_WAITING_DESCMEDIA_RESP:
      return recv_control(node, &node->descmedia_unit, false);
    case C2MS_NODE_WAITING_GETMEDIA_RESP:
      return recv_download(ref, device, strand);
    default:
      return recv_idle(node);
  }
}

int c2ms_node_recv_srvlist(c2ms_sess *session, c2ms_node *node, c2ms_unit *unit, bool *) {
  check_inside(session);
  control_body body;
  const int bad = open_body(session, node, unit, &body);
  if (bad != 0) return bad;
  list_entry entries[max_list_entries];
  const int count = parse_server_list(body.bytes, body.length, entries);
  if (count < 0) return not_understood(node);
  if (node->level == 0) {
    replace_unready(session);
    confirm(session, node, {entries, static_cast<size_t>(count)});
  }
  for (int i = 0; i < count; ++i) open_listed(session, node, entries[i]);
  return 0;
}

namespace {

// What a description took tells how far the server is, before anything is asked of it.
void note_exchange(c2ms_node *node, const c2ms_unit &unit) {
  const int64_t now = now_us();
  const adif::Guard lock(node->session->speed_lock);
  if (is_set(unit.sent_time)) node->estimate.exchanged(now, now - to_us(unit.sent_time));
}

}  // namespace

int c2ms_node_recv_descmedia(c2ms_sess *session, c2ms_node *node, c2ms_unit *unit, bool *) {
  check_inside(session);
  control_body body;
  const int bad = open_body(session, node, unit, &body);
  if (bad != 0) return bad;
  description media;
  if (!parse_description(body.bytes, body.length, &media)) return not_understood(node);
  node->load = media.load;
  note_exchange(node, *unit);
  remember_server(session, node->ip, node->port);
  if (session->desc_count == 0) {
    std::memcpy(session->media_name, media.name, sizeof session->media_name);
    session->media_size = media.size;
    session->media_type = media.type;
    session->idx_len = media.idx_len;
    std::memcpy(session->idx_fid, media.idx_fid, sizeof media.idx_fid);
    session->desc_count = 1;
    wake_opener(session);
  }
  return 0;
}

int c2ms_node_recv_getmedia(c2ms_node *node, c2ms_unit *unit) {
  if (node == nullptr) return -1;
  if (unit == nullptr) return -2;
  check_inside(node->session);
  if (unit->state != UNIT_END) return -100;
  const uint32_t result = unit->response.result;
  if (result != 0) {
    c2ms_sess_set_status(node->session,
                         static_cast<int32_t>(std::min<uint32_t>(result, INT32_MAX)));
    c2ms_node_download_end(node);
    c2ms_node_close(node);
    return -200;
  }
  c2ms_sess_set_status(node->session, 0);
  count_completed(unit);
  c2ms_node_perf_statistic(node, unit);
  node->load = unit->response.media_load;
  const bool was_short = is_short_answer(*unit);
  c2ms_node_download_end(node);
  c2ms_node_state_to(node, C2MS_NODE_READY);
  node->short_answers = was_short ? node->short_answers + 1 : 0;
  if (node->short_answers >= max_short_answers) {
    node->short_answers = 0;
    c2ms_node_retry(node);
    return -300;
  }
  if (!was_short) {
    ++node->session->answers;
    node->backoff_ms = 0;
    node->retried = false;
  }
  return 0;
}

int c2ms_node_lifecheck(c2ms_node *node) {
  if (node == nullptr) return -1;
  check_inside(node->session);
  const int64_t now = now_us();
  if (!is_media(node)) return check_list_node(node, now);
  if (node->state <= C2MS_NODE_DISCONNECTED) return 0;
  rearm(node);
  if (stalled(node, now)) {
    account_stalled(node);
    return c2ms_node_retry(node);
  }
  if (node->state >= C2MS_NODE_READY &&
      now - node->ready_at_us > node->library->patience.settled_us) {
    node->backoff_ms = 0;
    node->retried = false;
  }
  return 0;
}
