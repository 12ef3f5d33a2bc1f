// Reception of responses: header, body, payload. Part of fetch/unit.h.
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "adif/byteiter.h"
#include "adif/tsock.h"
#include "c2ms/core/count.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/unit.h"
#include "c2ms/ring/bind.h"
#include "c2ms/ring/need.h"
#include "c2ms/ring/pack.h"
#include "c2ms/ring/range.h"
#include "c2ms/wire/pdu.h"

namespace {

using namespace c2ms;

int fail(c2ms_unit *unit, int result) {
  unit->state = UNIT_INIT;
  return result;
}

// Reads until the frame holds `wanted` bytes. False: the peer is gone.
bool fill_frame(c2ms_unit *unit, int fd, int wanted) {
  const int missing = wanted - frameLength(unit->frame);
  if (missing <= 0) return true;
  int got = 0;
  const int result = frame_tcp_nb_receive2(fd, &unit->frame, missing, &got);
  if (got > 0) c2ms_sess_recv_byte(unit->session, got);
  return result >= 0;
}

// A refusal may end behind its result; a media answer without its fixed part has no payload to
// read.
uint32_t least_length(const c2ms_pdu &response) {
  const bool media = response.command_id == C2MS_GET_MEDIA_RESP;
  return media && response.result == 0 ? media_response_bytes : control_response_bytes;
}

int check_header(const c2ms_unit &unit) {
  const c2ms_pdu &response = unit.response;
  if (response.total_length > max_pdu_bytes || response.total_length < control_response_bytes) {
    return unit_oversized;
  }
  if (response.command_id != (unit.request.command_id | 0x80000000u)) return unit_wrong_command;
  if (response.sequence_id != unit.request.sequence_id) return unit_wrong_sequence;
  return 0;  // whatever the version: a fleet has old servers and new ones
}

void decode(c2ms_unit *unit) {
  c2ms_pdu_decode(&unit->response, bytePointer(unit->frame), frameLength(unit->frame));
}

// Header and body. 1: the PDU is whole; 0: more must come; negative: failed.
int receive_pdu(c2ms_unit *unit, int fd) {
  if (!is_set(unit->first_time)) unit->first_time = now_tv();
  if (unit->state < UNIT_GETBODY) {
    const int header = static_cast<int>(pdu_header_bytes);
    unit->state = UNIT_GETHDR;
    if (!fill_frame(unit, fd, header)) return fail(unit, unit_socket_failed);
    if (frameLength(unit->frame) < header) return 0;
    decode(unit);
    const int bad = check_header(*unit);
    if (bad != 0) return fail(unit, bad);
    unit->state = UNIT_GETBODY;
  }
  const int whole = static_cast<int>(unit->response.total_length);
  if (!fill_frame(unit, fd, whole)) return fail(unit, unit_socket_failed);
  if (frameLength(unit->frame) < whole) return 0;
  decode(unit);
  if (unit->response.total_length < least_length(unit->response)) return fail(unit, unit_oversized);
  if (unit->response.payload_length > unit->range_length) return fail(unit, unit_bad_payload);
  return 1;
}

void finish(c2ms_unit *unit) {
  if (!is_set(unit->end_time)) unit->end_time = now_tv();
  unit->state = UNIT_END;
}

// Where in the pack of the moment the answer's next byte belongs.
int32_t place_in_pack(const c2ms_unit *unit) {
  const int64_t before = int64_t{unit->pack_index - unit->first_index} * unit->pack_bytes;
  return static_cast<int32_t>(int64_t{unit->skip} + unit->received - before);
}

int32_t missing_payload(const c2ms_unit *unit) {
  return static_cast<int32_t>(unit->response.payload_length) - unit->received;
}

// The pack has all that it asked for: it is ready, and other units on it discard what they get. An
// answer that ends with it is counted before the pack can be read.
void complete_pack(c2ms_unit *unit, c2ms_pack *pack) REQUIRES(pack->lock) {
  unit->filled_pack = true;
  if (missing_payload(unit) == 0) {
    unit->end_time = now_tv();
    count_completed(unit);
  }
  pack->flag = unit->response.payload_flag;
  c2ms_pack_state_to(pack, pack_ready);
  c2ms_pack_unbind_all(pack);
}

// The answer ended before the range did: what came may be read, the pack is asked for again.
void complete_short(c2ms_unit *unit, c2ms_pack *pack) REQUIRES(pack->lock) {
  c2ms_pack_unbind_unit(pack, unit);
  unit->pack.store(nullptr);
  if (pack->unit_count > 0) return;
  c2ms_pack_state_to(pack, pack_idle);
}

enum class slice { more, nothing, lost_pack, failed };

// What others must hear of once the pack's lock is left.
struct pack_news {
  int32_t index = -1;
  bool idle = false, complete = false;
};

void tell(const c2ms_unit *unit, c2ms_pack *pack, const pack_news &news) {
  if (news.index < 0) return;
  if (news.idle) c2ms_cache_note_idle(unit->session->cache.load(), news.index);
  c2ms_pack_ready_notify(pack, news.index, news.complete);
}

// Accounts payload bytes that now lie in the pack behind those of earlier pieces. True: the unit
// has done with this pack.
bool take_payload(c2ms_unit *unit, c2ms_pack *pack, int got, pack_news *news) REQUIRES(pack->lock) {
  if (pack->state == pack_requested) c2ms_pack_state_to(pack, pack_receiving);
  unit->state = UNIT_GETPAYLOAD;
  unit->received += got;
  const int32_t there = place_in_pack(unit);
  if (got > 0) {
    const int32_t before = pack->len;
    pack->len = std::max(pack->len, there);
    count_payload(unit, got, pack->len - before);
  }
  *news = {pack->index};
  if (there >= pack->size && pack->size > 0) {
    complete_pack(unit, pack);
    news->complete = true;
    return true;
  }
  if (missing_payload(unit) > 0) return false;
  if (pack->size == 0) pack->not_before_at_us = now_us() + empty_pack_pause_us;
  complete_short(unit, pack);
  news->idle = pack->state == pack_idle;
  return true;
}

// The answer goes on in the next pack of the run.
void next_pack(c2ms_unit *unit) {
  ++unit->pack_index;
  c2ms_cache_go_on(&unit->session->cache_record, unit);
}

// Receives up to one slice into the pack. The pack's lock is held throughout, so that a range that
// moves on can never get bytes of the old one.
slice receive_into_pack(c2ms_unit *unit, c2ms_pack *pack, int fd, int32_t *budget) {
  pack_news news;
  slice outcome = slice::more;
  bool done;
  {
    const adif::Guard lock(pack->lock);
    if (!c2ms_unit_verify_in(unit, pack)) return slice::lost_pack;
    const int32_t room = pack->size - place_in_pack(unit);
    const int wanted = std::min({missing_payload(unit), room, receive_slice_bytes});
    int got = 0;
    const int result =
        wanted > 0 ? tcp_nb_receive(fd, pack->buf + place_in_pack(unit), wanted, &got) : 0;
    *budget -= got;
    done = take_payload(unit, pack, got, &news);
    if (!done && (result < 0 || got < wanted))
      outcome = result < 0 ? slice::failed : slice::nothing;
  }
  tell(unit, pack, news);
  if (done) next_pack(unit);
  return outcome;
}

uint32_t total_length_of(const uint8_t *header) {
  byte_iter it;
  iter_set_text(&it, header, sizeof(uint32_t));
  uint32_t length = 0;
  iter_get_uint32BE(&it, &length);
  return length;
}

// Reads the beginning of a response, the payload straight into the pack by the same call: a small
// pack then costs one call instead of three (docs/performance.md). What comes before the payload
// goes to the frame; `*in_pack` tells how many bytes follow it in the pack. They count for nothing
// until the header has been checked. False: the peer is gone, or the bytes are.
bool read_beginning(c2ms_unit *unit, c2ms_pack *pack, int fd, int *in_pack) REQUIRES(pack->lock) {
  uint8_t head[media_response_bytes];
  const auto room = std::min(unit->range_length, static_cast<uint32_t>(pack->size - unit->skip));
  uint8_t *const place = pack->buf + unit->skip;
  iovec pieces[] = {{head, sizeof head}, {place, room}};
  msghdr message{};
  message.msg_iov = pieces;
  message.msg_iovlen = std::size(pieces);
  const ssize_t n = recvmsg(fd, &message, MSG_DONTWAIT);
  if (n <= 0) return n < 0 && (errno == EAGAIN || errno == EINTR);
  const int in_head = static_cast<int>(std::min<ssize_t>(n, sizeof head));
  c2ms_sess_recv_byte(unit->session, in_head);
  if (putnLastBytes(&unit->frame, head, in_head) != in_head) return false;
  *in_pack = static_cast<int>(n) - in_head;
  if (*in_pack == 0) return true;
  // A longer PDU than usual: its rest is in the pack, before the payload.
  const int64_t rest = int64_t{total_length_of(head)} - int64_t{sizeof head};
  const auto strayed = static_cast<int>(std::clamp<int64_t>(rest, 0, *in_pack));
  if (strayed == 0) return true;
  c2ms_sess_recv_byte(unit->session, strayed);
  // (Of one that is too long, which is about to be refused, nothing is kept.) Without memory for it
  // the stream is lost.
  const bool acceptable = strayed <= static_cast<int>(max_pdu_bytes);
  if (acceptable && putnLastBytes(&unit->frame, place, strayed) != strayed) return false;
  *in_pack -= strayed;
  std::memmove(place, place + strayed, static_cast<size_t>(*in_pack));
  return true;
}

// The beginning of a download's reception. 1: the PDU is whole; 0: more must come; negative:
// failed.
int receive_beginning(c2ms_unit *unit, int fd) {
  c2ms_pack *const pack = unit->pack.load();
  if (pack == nullptr) return receive_pdu(unit, fd);
  pack_news news;
  bool done;
  {
    const adif::Guard lock(pack->lock);
    // Only into a pack that nobody else fills, and behind what it holds: those bytes may be read.
    const bool alone = pack->len == unit->skip && pack->unit_count == 1;
    int in_pack = 0;
    if (alone && frameLength(unit->frame) == 0 && c2ms_unit_verify_in(unit, pack)) {
      if (!read_beginning(unit, pack, fd, &in_pack)) return fail(unit, unit_socket_failed);
      if (frameLength(unit->frame) == 0) return 0;
    }
    const int result = receive_pdu(unit, fd);
    const bool answered = result > 0 && unit->response.result == 0;
    // Bytes behind the answer that nobody asked for.
    const bool too_many = answered && in_pack > static_cast<int>(unit->response.payload_length);
    if (!answered || too_many) c2ms_sess_recv_byte(unit->session, in_pack);
    if (too_many) return fail(unit, unit_bad_payload);
    if (!answered || in_pack == 0) return result;
    done = take_payload(unit, pack, in_pack, &news);
  }
  tell(unit, pack, news);
  if (done) next_pack(unit);
  return 1;
}

// Reads what nobody wants, to the end of the pack that it would have filled.
slice discard(c2ms_unit *unit, int fd, int32_t *budget) {
  uint8_t nowhere[16 * 1024];
  unit->state = UNIT_GETPAYLOAD;
  const int32_t last = unit->first_index + unit->run_packs - 1;
  const int32_t room = unit->pack_index < last ? unit->pack_bytes - place_in_pack(unit) : INT32_MAX;
  const int wanted = std::min({missing_payload(unit), room, static_cast<int32_t>(sizeof nowhere)});
  int got = 0;
  const int result = tcp_nb_receive(fd, nowhere, wanted, &got);
  *budget -= got;
  unit->received += got;
  if (got > 0) count_payload(unit, got, 0);
  if (result < 0) return slice::failed;
  if (got == room) next_pack(unit);
  return got < wanted ? slice::nothing : slice::more;
}

slice receive_slice(c2ms_unit *unit, int fd, int32_t *budget) {
  c2ms_pack *const pack = unit->pack.load();
  if (pack != nullptr) {
    const slice outcome = receive_into_pack(unit, pack, fd, budget);
    if (outcome != slice::lost_pack) return outcome;
    unit->pack.store(nullptr);
  }
  return discard(unit, fd, budget);
}

// An answer without payload: of a pack of size 0, or one that ended short at once.
void end_empty(c2ms_unit *unit) {
  c2ms_pack *const pack = unit->pack.load();
  pack_news news;
  if (pack != nullptr) {
    const adif::Guard lock(pack->lock);
    if (c2ms_unit_verify_in(unit, pack)) take_payload(unit, pack, 0, &news);
  }
  tell(unit, pack, news);
  finish(unit);
}

// Bytes that came with a control response and belong to nothing are dropped: nothing else has been
// asked for. True: the peer has closed. (Who sends more than a few kilobytes of them fails at the
// next look.)
bool drop_surplus(c2ms_unit *unit, int fd) {
  uint8_t nowhere[max_pdu_bytes];
  for (int i = 0; i < max_surplus_reads; ++i) {
    const ssize_t n = recv(fd, nowhere, sizeof nowhere, MSG_DONTWAIT);
    if (n <= 0) return n == 0 || (errno != EAGAIN && errno != EINTR);
    c2ms_sess_recv_byte(unit->session, n);
  }
  return false;
}

}  // namespace

int c2ms_unit_recv_control(c2ms_node *node, c2ms_unit *unit, int fd, bool *closed_flag) {
  if (node == nullptr) return -1;
  if (unit == nullptr) return -2;
  node->last_active_at_us = now_us();
  const int result = receive_pdu(unit, fd);
  if (result < 0) {
    *closed_flag = true;
    const bool nothing = result == unit_socket_failed && frameLength(unit->frame) == 0;
    return nothing ? static_cast<int>(unit_nothing_read) : result;
  }
  if (result == 0) return 0;
  finish(unit);
  *closed_flag = drop_surplus(unit, fd);
  return 0;
}

int c2ms_unit_recv(c2ms_unit *unit, int fd) {
  if (unit == nullptr) return -1;
  if (unit->state != UNIT_GETPAYLOAD) {
    const int result = receive_beginning(unit, fd);
    if (result <= 0) return result;
    if (unit->response.result != 0) {
      finish(unit);  // (a refusal has no payload)
      return 0;
    }
    if (unit->state != UNIT_GETPAYLOAD && missing_payload(unit) == 0) {
      end_empty(unit);
      return 0;
    }
  }
  for (int32_t budget = receive_event_bytes; missing_payload(unit) > 0;) {
    const slice outcome = receive_slice(unit, fd, &budget);
    if (outcome == slice::failed) return fail(unit, unit_socket_failed);
    if (missing_payload(unit) > 0 && (outcome == slice::nothing || budget <= 0)) return 0;
  }
  finish(unit);
  return 0;
}
