// The real reception of a response, fed in pieces that the input itself cuts, while its session
// changes under it: nothing is written outside the pack, a unit ends or fails but never spins, and
// what a filled pack holds is what came.
//
// Input: one byte that says how the request's numbers are patched into the answer, one that sets
// the scene, one that tells how long the first piece is, then the answer's bytes; the length of
// each other piece follows from the byte that it begins with. They come from a descriptor that only
// this program knows: recv and recvmsg are replaced.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "adif/kalloc.h"
#include "c2ms.h"
#include "c2ms/core/records.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/fetch/seek.h"
#include "c2ms/fetch/unit.h"
#include "c2ms/ring/cache.h"
#include "c2ms/session/object.h"
#include "require.h"
#include "wire.h"

namespace {

constexpr int32_t packsize = 64;
constexpr int packs = 4;
constexpr uint8_t canary = 0xa5;
constexpr int32_t border = 64;
// More than one event receives, in slices and in all.
constexpr int32_t big_packsize = c2ms::receive_event_bytes + c2ms::receive_slice_bytes;

// What happens beside the reception (bits of the second byte). The first byte's bits 0 to 5 patch,
// 6 seeks away in the middle, 7 makes it a control response.
enum scene : uint8_t {
  empty_pack = 1,      // the range is the file's end, of no byte
  two_units = 2,       // another unit has been issued for the pack
  closes_at_once = 2,  // of a control response: the end comes with its last byte
  overtaken = 4,       // ... and fills it in the middle
  flood = 8,           // a big pack, whose payload does not end with the input
  no_frame = 16,       // no memory when the record was made
  no_memory = 32,      // nor for anything from here on
  fails = 64,          // the socket fails at the end, where it would have been closed
  begun_before = 128,  // another unit has left bytes in the pack
};

c2ms_node *fetch_node(c2ms_sess *sess) {
  const c2ms::StrandHold strand(sess);
  return c2ms_node_fetch(sess);
}

struct world {
  c2ms_sess *sess;
  c2ms_node *node;
  int32_t size;
  std::vector<uint8_t> memory;

  world(c2ms_mgmt *mgmt, int32_t pack, int count)
      : sess(c2ms_sess_fetch(mgmt)),
        node(fetch_node(sess)),
        size(pack),
        memory(static_cast<size_t>(pack) * static_cast<size_t>(count) + 2 * border, canary) {
    sess->cache = c2ms_cache_init(sess);
    c2ms_cache_setbuf(sess->cache, memory.data() + border, pack * count, pack);
  }

  c2ms_cache *cache() const { return sess->cache.load(); }
};

world &the_world(bool big) {
  c2ms_set_diag(nullptr, nullptr);
  static c2ms_mgmt *const mgmt = c2ms_mgmt_init(nullptr, 0, 0, nullptr, 0);
  static world usual(mgmt, packsize, packs), huge(mgmt, big_packsize, 1);
  return big ? huge : usual;
}

void put(std::vector<uint8_t> *answer, size_t at, uint32_t value) {
  for (size_t i = 0; i < 4 && at + i < answer->size(); ++i) {
    (*answer)[at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
  }
}

// Lets the fuzzer get past the header, whose numbers it could not guess.
void patch(std::vector<uint8_t> *answer, const c2ms_unit &unit, uint8_t how) {
  if (how & 1) put(answer, 0, unit.is_download != 0 ? 37 : 18);
  if (how & 2) put(answer, 4, unit.request.command_id | 0x80000000);
  if (how & 4) put(answer, 8, unit.request.sequence_id);
  if ((how & 8) && answer->size() > 13) (*answer)[12] = 0, (*answer)[13] = 1;
  if (how & 16) put(answer, 14, 0);
  if (how & 32) put(answer, 32, unit.range_length);
}

void check_borders(const world &w) {
  static const std::vector<uint8_t> untouched(border, canary);
  require(std::memcmp(w.memory.data(), untouched.data(), border) == 0);
  require(std::memcmp(w.memory.data() + w.memory.size() - border, untouched.data(), border) == 0);
}

// What ended well was an answer to this very request.
void check_answer(const c2ms_unit &unit) {
  const c2ms_pdu &response = unit.response, &request = unit.request;
  require(response.total_length >= 18 && response.total_length <= 1024);
  require(response.command_id == (request.command_id | 0x80000000u));
  require(response.sequence_id == request.sequence_id);
  require(response.result != 0 || response.payload_length <= unit.range_length);
}

c2ms_unit *take_unit(const world &w) {
  c2ms_unit *const unit = c2ms_sess_unit_get(w.sess);
  require(unit != nullptr);
  unit->state = UNIT_SENT;
  return unit;
}

// One reception and what goes on beside it.
class play {
 public:
  play(world *w, uint8_t how, uint8_t scene) : w_(*w), how_(how), scene_(scene) {
    if (control()) {
      unit_ = &w_.node->srvlist_unit;
      c2ms_unit_init_srvlist(w_.node, unit_);
      unit_->state = UNIT_SENT;
    } else {
      issue();
    }
    if (scene_ & no_frame) deleteFrame(&unit_->frame);
  }

  ~play() {
    adif::fail_allocations(0);
    if (unit_->frame == nullptr) unit_->frame = createFrame(c2ms::unit_frame_bytes);
    if (other_ != nullptr) c2ms_unit_recycle(other_);
    if (!control()) c2ms_unit_recycle(unit_);
  }

  void run(std::vector<uint8_t> answer, uint8_t first_piece) {
    patch(&answer, *unit_, how_);
    fuzz::wire wire(&answer, first_piece);
    int result = receive();  // nothing is there yet
    bool middle = false;
    while (result == 0 && unit_->state != UNIT_END && wire.next_piece()) {
      if (control() && (scene_ & closes_at_once) && wire.passed() == answer.size())
        wire.end(scene_ & fails, 0);
      if (!middle && wire.passed() > answer.size() / 2) middle = change();
      result = receive();
    }
    wire.end(scene_ & fails, scene_ & flood ? 4 * int64_t{big_packsize} : 0);
    // Nothing more will come, and the node is told; a flood takes an event for each megabyte.
    for (int i = 0; i < 12 && result == 0 && unit_->state != UNIT_END; ++i) result = receive();
    require(result != 0 || unit_->state == UNIT_END);
    if (unit_->state == UNIT_END) check_answer(*unit_);
    if (unit_->filled_pack && !overtaken_) check_content(answer);
    check_borders(w_);
  }

 private:
  bool control() const { return (how_ & 128) != 0; }

  void issue() {
    c2ms_cache *const cache = w_.cache();
    const auto size = static_cast<uint64_t>(w_.size);
    c2ms_cache_setfile(cache, w_.sess->fid, 0, size * 10 + 1, 0, c2ms::cache_use::box_headers);
    pack_ = static_cast<c2ms_pack *>(sk_value(cache->packs, 0));
    require(c2ms_cache_download_pack(cache, pack_) == 0);
    unit_ = take_unit(w_);
    if (scene_ & empty_pack) {  // as the last pack of a file whose size the packs divide
      const adif::Guard lock(pack_->lock);
      pack_->size = 0;
      unit_->range_length = 0;
    }
    if (scene_ & begun_before) {
      const adif::Guard lock(pack_->lock);
      pack_->state = pack_receiving;
      pack_->len = std::min(5, pack_->size);
    }
    const bool lacks_nothing = (scene_ & empty_pack) != 0;
    if ((scene_ & (two_units | overtaken)) && !lacks_nothing && c2ms_pack_redownload(pack_) == 0)
      other_ = take_unit(w_);
  }

  // What others do in the middle of the answer. True: done.
  bool change() {
    if (how_ & 64) c2ms_cache_seek(w_.cache(), static_cast<uint64_t>(w_.size) * 8);
    if ((scene_ & overtaken) && other_ != nullptr) overtake();
    if (scene_ & no_memory) adif::fail_allocations(1, adif::kFailForGood);
    return true;
  }

  // Another node answers the same request first.
  void overtake() {
    std::vector<uint8_t> header(37);
    patch(&header, *other_, 63);
    fuzz::wire wire(&header, 0);
    wire.end(false, other_->range_length);
    for (int i = 0; i < 4 && other_->state != UNIT_END; ++i)
      require(c2ms_unit_recv(other_, fuzz::wire_fd) == 0);
    require(other_->state == UNIT_END);
    overtaken_ = other_->filled_pack;
  }

  int receive() {
    bool closed = false;
    const int result = control() ? c2ms_unit_recv_control(w_.node, unit_, fuzz::wire_fd, &closed)
                                 : c2ms_unit_recv(unit_, fuzz::wire_fd);
    require(result <= 0 && (result == 0 || unit_->state == UNIT_INIT));
    if (!control() && result == 0) require(unit_->received <= w_.size);
    return result;
  }

  // The pack holds what stood behind the answer's header; a flood's bytes are not looked at.
  void check_content(const std::vector<uint8_t> &answer) const {
    const size_t from = std::min<size_t>(unit_->response.total_length, answer.size());
    const size_t n = std::min<size_t>(unit_->response.payload_length, answer.size() - from);
    require(std::memcmp(pack_->buf, answer.data() + from, n) == 0);
    const adif::Guard lock(pack_->lock);
    require(pack_->state == pack_ready && pack_->len == pack_->size && pack_->unit_count == 0);
  }

  world &w_;
  const uint8_t how_, scene_;
  c2ms_unit *unit_ = nullptr, *other_ = nullptr;
  c2ms_pack *pack_ = nullptr;
  bool overtaken_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3 || size > 2048) return 0;
  world &w = the_world((data[1] & flood) != 0 && (data[0] & 128) == 0);
  play(&w, data[0], data[1]).run({data + 3, data + size}, data[2]);
  return 0;
}
