// The real reception of a download, fed in pieces that the input itself cuts: nothing is written
// outside the pack, a unit ends or fails but never spins, and what the pack holds is what came.
//
// Input: one byte that says how the request's numbers are patched into the answer, then the
// answer's bytes; a piece's length follows from the byte in front of it.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "c2ms.h"
#include "c2ms/c2ms_cache.h"
#include "c2ms/c2ms_node_obj.h"
#include "c2ms/c2ms_pack.h"
#include "c2ms/c2ms_sess_obj.h"
#include "c2ms/c2ms_sess_sched.h"
#include "c2ms/c2ms_unit.h"

namespace {

constexpr int32_t packsize = 64;
constexpr int packs = 4;
constexpr uint8_t canary = 0xa5;

struct world {
  c2ms_mgmt *mgmt;
  c2ms_sess *sess;
  c2ms_node *node;
  std::vector<uint8_t> memory = std::vector<uint8_t>(packsize * (packs + 2), canary);
  world() {
    c2ms_set_diag(nullptr, nullptr);
    mgmt = c2ms_mgmt_init(nullptr, 0, 0, nullptr, 0);
    sess = c2ms_sess_fetch(mgmt);
    node = c2ms_node_fetch(sess);
    sess->cache = c2ms_cache_init(sess);
    c2ms_cache_setbuf(sess->cache, memory.data() + packsize, packsize * packs, packsize);
  }
};

world &the_world() {
  static world w;
  return w;
}

// Lets the fuzzer get past the header, whose numbers it could not guess.
void patch(std::vector<uint8_t> *answer, const c2ms_unit *unit, uint8_t how) {
  const auto put = [&](size_t at, uint32_t value) {
    for (size_t i = 0; i < 4 && at + i < answer->size(); ++i) {
      (*answer)[at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
    }
  };
  if (how & 1) put(0, 37);
  if (how & 2) put(4, unit->request.command_id | 0x80000000);
  if (how & 4) put(8, unit->request.sequence_id);
  if ((how & 8) && answer->size() > 13) (*answer)[12] = 0, (*answer)[13] = 1;
  if (how & 16) put(14, 0);
  if (how & 32) put(32, packsize);
}

void check_memory(const world &w) {
  const auto spoiled = [](uint8_t byte) { return byte != canary; };
  if (std::any_of(w.memory.begin(), w.memory.begin() + packsize, spoiled)) std::abort();
  if (std::any_of(w.memory.end() - packsize, w.memory.end(), spoiled)) std::abort();
}

// What ended well was an answer to this very request.
void check_answer(const c2ms_unit &unit) {
  const c2ms_pdu &response = unit.response, &request = unit.request;
  if (response.total_length < 18 || response.total_length > 1024) std::abort();
  if (response.command_id != (request.command_id | 0x80000000u)) std::abort();
  if (response.sequence_id != request.sequence_id) std::abort();
  if (response.prot_version != request.prot_version) std::abort();
  if (response.result == 0 && response.payload_length > unit.range_length) std::abort();
}

// A range's unit out of the queue, or the unit of a server list.
c2ms_unit *begin(const world &w, bool control) {
  c2ms_cache *const cache = w.sess->cache;
  c2ms_cache_setfile(cache, w.sess->fid, 0, packsize * 10 + 1, 0);
  c2ms_sess_unit_clear(w.sess);
  c2ms_unit *const unit = control ? &w.node->srvlist_unit : c2ms_sess_unit_get(w.sess);
  if (unit == nullptr) std::abort();
  if (control) c2ms_unit_init_srvlist(w.node, unit);
  unit->state = UNIT_SENT;
  return unit;
}

int receive(const world &w, c2ms_unit *unit, bool control, int fd) {
  bool closed = false;
  return control ? c2ms_unit_recv_control(w.node, unit, fd, &closed) : c2ms_unit_recv(unit, fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2 || size > 2048) return 0;
  world &w = the_world();
  const bool control = (data[0] & 128) != 0;
  c2ms_unit *const unit = begin(w, control);
  std::vector<uint8_t> answer(data + 1, data + size);
  patch(&answer, unit, data[0]);
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair) != 0) std::abort();
  int result = 0;
  for (size_t at = 0; at < answer.size() && result == 0 && unit->state != UNIT_END;) {
    const size_t piece = std::min<size_t>(answer[at] + 1u, answer.size() - at);
    if (write(pair[1], answer.data() + at, piece) != static_cast<ssize_t>(piece)) std::abort();
    at += piece;
    if ((data[0] & 64) && at > answer.size() / 2) c2ms_cache_seek(w.sess->cache, packsize * 8);
    result = receive(w, unit, control, pair[0]);
    if (result == 0 && unit->received > packsize) std::abort();
  }
  close(pair[1]);
  if (result == 0 && unit->state != UNIT_END) {  // nothing more will come, and the node is told
    for (int i = 0; i < 3 && result == 0 && unit->state != UNIT_END; ++i)
      result = receive(w, unit, control, pair[0]);
    if (result == 0 && unit->state != UNIT_END) std::abort();
  }
  close(pair[0]);
  if (unit->state == UNIT_END) check_answer(*unit);
  check_memory(w);
  if (!control) c2ms_unit_recycle(unit);
  return 0;
}
