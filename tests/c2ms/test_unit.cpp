// One download's reception over a real socket, cut at every byte, and the reader's need that it
// meets: what the pack holds is what came, whoever else fills it, and a need wakes exactly when it
// should.
#include <sys/socket.h>
#include <unistd.h>

#include <numeric>
#include <string>

#include "c2ms/core/records.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/fetch/seek.h"
#include "c2ms/fetch/unit.h"
#include "c2ms/ring/cache.h"
#include "c2ms/ring/need.h"
#include "c2ms/ring/pack.h"
#include "c2ms/ring/range.h"
#include "local.h"

namespace {

constexpr int32_t packsize = 64;
constexpr int packs = 4;

void put32(std::vector<uint8_t> *bytes, size_t at, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) (*bytes)[at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

class Unit : public Local {
 protected:
  Unit() {
    sess->cache = cache;
    c2ms_cache_setbuf(cache, memory.data(), packsize * packs, packsize);
    std::iota(payload.begin(), payload.end(), uint8_t{1});
  }
  ~Unit() override {
    c2ms_sess_unit_clear(sess);
    c2ms_cache_clean(cache);
    sess->cache = nullptr;
  }

  c2ms_pack *pack(int32_t index) {
    return static_cast<c2ms_pack *>(sk_value(cache->packs, index % packs));
  }

  // A sent unit for pack 0 of a file of ten packs.
  c2ms_unit *begin() {
    std::fill(memory.begin(), memory.end(), uint8_t{0});
    c2ms_cache_setfile(cache, sess->fid, 0, packsize * 10 + 1, 0);
    c2ms_sess_unit_clear(sess);
    return take();
  }
  // A second request for it.
  c2ms_unit *another() {
    EXPECT_EQ(c2ms_pack_redownload(pack(0)), 0);
    return take();
  }
  c2ms_unit *take() {
    c2ms_unit *const unit = c2ms_sess_unit_get(sess);
    unit->state = UNIT_SENT;
    return unit;
  }

  // `pdu` bytes of header and body (37 is usual), then `count` bytes of payload as announced.
  std::vector<uint8_t> answer(const c2ms_unit *unit, uint32_t pdu, uint32_t announced, size_t count,
                              uint32_t result = 0) {
    std::vector<uint8_t> bytes(pdu, 0xee);
    put32(&bytes, 0, pdu);
    put32(&bytes, 4, 0x80000003);
    put32(&bytes, 8, unit->request.sequence_id);
    bytes[12] = 0, bytes[13] = 1;
    put32(&bytes, 14, result);
    if (pdu >= 36) put32(&bytes, 32, announced);
    const auto from = payload.begin() + unit->skip;
    bytes.insert(bytes.end(), from, from + static_cast<ptrdiff_t>(count));
    return bytes;
  }

  // The result of receiving `bytes` in two pieces, the first of `cut` bytes.
  int feed(c2ms_unit *unit, const std::vector<uint8_t> &bytes, size_t cut) {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    int result = 0;
    size_t at = 0;
    for (const size_t end : {cut, bytes.size()}) {
      if (end == at || result != 0 || unit->state == UNIT_END) continue;
      EXPECT_EQ(write(pair[1], bytes.data() + at, end - at), static_cast<ssize_t>(end - at));
      at = end;
      result = c2ms_unit_recv(unit, pair[0]);
    }
    close(pair[0]);
    close(pair[1]);
    return result;
  }

  bool holds_payload(size_t count) {
    return std::equal(payload.begin(), payload.begin() + static_cast<ptrdiff_t>(count),
                      memory.begin());
  }

  std::vector<uint8_t> memory = std::vector<uint8_t>(packsize * packs);
  std::vector<uint8_t> payload = std::vector<uint8_t>(2 * packsize);
  c2ms_cache *const cache = c2ms_cache_init(sess);
};

TEST_F(Unit, AnswersCutAtEveryByte) {
  const struct {
    const char *what;
    uint32_t pdu, announced, result;
    int expected;
    uint8_t state;  // of the pack afterwards
  } rows[] = {
      {"whole", 37, 64, 0, 0, pack_ready},
      {"a longer PDU", 57, 64, 0, 0, pack_ready},
      {"one longer than the payload", 120, 64, 0, 0, pack_ready},
      {"short", 37, 40, 0, 0, pack_idle},
      {"refused", 37, 0, 10, 0, pack_requested},
      {"too long", 37, 65, 0, unit_bad_payload, pack_requested},
      {"no fixed part", 20, 0, 0, unit_oversized, pack_requested},
      {"oversized", 1025, 0, 0, unit_oversized, pack_requested},
  };
  for (const auto &row : rows) {
    const bool delivers = row.expected == 0;
    const size_t len = delivers ? row.announced : 0;
    for (size_t cut = 0; cut <= row.pdu + row.announced; ++cut) {
      SCOPED_TRACE(std::string(row.what) + " " + std::to_string(cut));
      c2ms_unit *const unit = begin();
      const auto bytes = answer(unit, row.pdu, row.announced, row.announced, row.result);
      ASSERT_EQ(c2ms_cache_get_idle_pack(cache), pack(1));
      ASSERT_EQ(feed(unit, bytes, cut), row.expected);
      ASSERT_TRUE(!delivers || unit->state == UNIT_END);
      {
        const adif::Guard lock(pack(0)->lock);
        ASSERT_EQ(pack(0)->len, static_cast<int32_t>(len));
        ASSERT_TRUE(!delivers || pack(0)->state == row.state);
      }
      ASSERT_TRUE(holds_payload(len));
      const bool idle = delivers && row.state == pack_idle;
      ASSERT_TRUE(!idle || c2ms_cache_get_idle_pack(cache) == pack(0)) << "it is not found again";
      c2ms_unit_recycle(unit);
    }
  }
}

TEST_F(Unit, AnAnswerThatFailsLeavesAnotherUnitsBytesAlone) {
  c2ms_unit *const first = begin();
  auto bytes = answer(first, 37, 64, 30);  // the rest is late
  ASSERT_EQ(feed(first, bytes, 0), 0);
  c2ms_unit *const second = another();
  payload.assign(payload.size(), 0x77);
  bytes = answer(second, 37, 64, 64);
  put32(&bytes, 8, second->request.sequence_id + 1);
  ASSERT_EQ(feed(second, bytes, 0), unit_wrong_sequence);
  std::iota(payload.begin(), payload.end(), uint8_t{1});
  EXPECT_TRUE(holds_payload(30));
  EXPECT_EQ(c2ms_pack_len(pack(0)), 30);
  c2ms_unit_recycle(second);
  c2ms_unit *const slower = another();
  EXPECT_EQ(slower->range_length, 34u) << "what is missing";
  ASSERT_EQ(feed(slower, answer(slower, 37, 34, 10), 0), 0);
  EXPECT_EQ(c2ms_pack_len(pack(0)), 40);
  EXPECT_TRUE(holds_payload(40));
  c2ms_unit_recycle(slower);
  c2ms_unit_recycle(first);
}

// A server may speak any version. Bytes that come with a control response and belong to nothing are
// dropped; behind a payload they are a failure.
TEST_F(Unit, VersionsAndStrayBytes) {
  const struct {
    const char *what;
    bool media;
    uint16_t version;
    size_t stray;
    int expected;
  } rows[] = {
      {"version 0", true, 0, 0, 0},
      {"version 1", true, 1, 0, 0},
      {"version 2", true, 2, 0, 0},
      {"version 65535", true, 65535, 0, 0},
      {"a description of version 0", false, 0, 0, 0},
      {"a description of version 65535", false, 65535, 0, 0},
      {"stray bytes behind a description", false, 1, 5, 0},
      {"many behind a description", false, 1, 3000, 0},
      {"stray bytes behind a payload", true, 1, 5, unit_bad_payload},
  };
  const c2ms::StrandHold strand(sess);
  c2ms_node *const node = c2ms_node_fetch(sess);
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    c2ms_unit *const unit = row.media ? begin() : &node->descmedia_unit;
    if (!row.media) c2ms_unit_init_descmedia(node, unit);
    unit->state = UNIT_SENT;
    const uint32_t payload_len = row.stray > 0 ? 40 : packsize;
    auto bytes = answer(unit, row.media ? 37 : 87, payload_len, row.media ? payload_len : 0);
    if (!row.media) put32(&bytes, 4, 0x80000002);
    bytes[12] = static_cast<uint8_t>(row.version >> 8);
    bytes[13] = static_cast<uint8_t>(row.version);
    bytes.insert(bytes.end(), row.stray, 0x55);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    ASSERT_EQ(write(pair[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    bool closed = false;
    EXPECT_EQ(row.media ? c2ms_unit_recv(unit, pair[0])
                        : c2ms_unit_recv_control(node, unit, pair[0], &closed),
              row.expected);
    EXPECT_EQ(unit->state == UNIT_END, row.expected == 0);
    uint8_t byte;
    EXPECT_TRUE(row.expected != 0 || recv(pair[0], &byte, 1, 0) < 0) << "bytes are left";
    EXPECT_FALSE(closed);
    close(pair[0]);
    close(pair[1]);
    if (row.media) c2ms_unit_recycle(unit);
  }
  // A peer that has gone before it answered, and within its answer.
  for (const size_t sent : {0u, 3u}) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    c2ms_unit_init_descmedia(node, &node->descmedia_unit);
    ASSERT_EQ(write(pair[1], payload.data(), sent), static_cast<ssize_t>(sent));
    close(pair[1]);
    bool closed = false;
    EXPECT_EQ(c2ms_unit_recv_control(node, &node->descmedia_unit, pair[0], &closed),
              sent == 0 ? unit_nothing_read : unit_socket_failed);
    EXPECT_TRUE(closed);
    close(pair[0]);
  }
  c2ms_node_recycle(node);
}

// The packs that the reader needs become ready in any order: it is woken for the last one only, and
// at once for one that nobody but the reader asks for: it lies before what is fetched ahead.
TEST_F(Unit, ANeedIsMetByTheLastPackOnly) {
  const auto finish = [&](int32_t index, uint8_t state) {
    {
      const adif::Guard lock(pack(index)->lock);
      pack(index)->size = pack(index)->len = packsize;
      c2ms_pack_state_to(pack(index), state);
    }
    const uint32_t before = cache->wake_count;
    c2ms_cache_tell_reader(cache, index);
    return cache->wake_count != before;
  };
  const auto ask = [&](int32_t index) {
    const adif::Guard lock(pack(index)->lock);
    pack(index)->len = 0;
    c2ms_pack_state_to(pack(index), pack_requested);
  };
  for (const std::vector<int32_t> &order :
       {std::vector<int32_t>{0, 1, 2}, {2, 1, 0}, {1, 0, 2}, {1, 2, 0}, {0, 2, 1}}) {
    c2ms_cache_setfile(cache, sess->fid, 0, packsize * 10 + 1, 0);
    for (const int32_t index : order) ask(index);
    ASSERT_FALSE(c2ms_cache_need(cache, 0, 2, INT32_MAX));
    for (size_t i = 0; i < order.size(); ++i)
      EXPECT_EQ(finish(order[i], pack_ready), i + 1 == order.size()) << order[0] << order[1];
    EXPECT_TRUE(c2ms_cache_need(cache, 0, 2, INT32_MAX)) << "all is there";
    EXPECT_FALSE(c2ms_cache_need(cache, 1, 3, 1)) << "pack 3 is idle: a node will ask for it";
    const adif::Guard lock(cache->lock);
    cache->wanted_from = 4;
  }
  ask(0);
  ask(1);
  ASSERT_FALSE(c2ms_cache_need(cache, 0, 1, 10));
  EXPECT_FALSE(finish(0, pack_ready));
  EXPECT_TRUE(finish(1, pack_receiving)) << "ten bytes of it were enough";
  ask(1);
  ASSERT_FALSE(c2ms_cache_need(cache, 1, 1, 10));
  EXPECT_TRUE(finish(1, pack_idle)) << "the reader asks for it";
  c2ms_cache_need_nothing(cache);
  EXPECT_FALSE(finish(1, pack_ready));
}

}  // namespace
