// The figures and buffered ranges that a player asks for; c2ms.h describes the calls.
#include "c2ms/core/call.h"
#include "c2ms/core/count.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/ring/window.h"

#include <algorithm>
#include <cstring>

#include "c2ms.h"

namespace c2ms {

namespace {

uint64_t in_flight(const tally &counts) {
  return counts.sent - counts.completed - counts.given_up;
}

}  // namespace

namespace {

// The bytes of the selected file that can be read now, in stretches, lowest first: `each(begin,
// end)`. Packs that the index in memory holds count as there.
template <class Each>
void walk_buffered(c2ms_cache *cache, Each each) REQUIRES(cache->lock) {
  const int32_t packnum = cache->packnum;
  if (packnum < 1) return;
  const auto packsize = static_cast<uint64_t>(cache->packsize.load());
  const c2ms_window window = c2ms_cache_window(cache);
  const int64_t end = std::min<int64_t>(int64_t{cache->first_index} + packnum, cache->total_packs);
  uint64_t begin = 0, there = 0;  // the stretch so far
  for (int64_t i = cache->first_index; i < end; ++i) {
    auto *const pack =
        static_cast<c2ms_pack *>(sk_value(cache->packs, static_cast<int>(i % packnum)));
    const uint64_t from = static_cast<uint64_t>(i) * packsize;
    const uint64_t to = std::min(from + packsize, cache->media_size);
    uint64_t have = to;
    if (!window.holds(from, to)) {
      const adif::Guard lock(pack->lock);
      have = from + static_cast<uint64_t>(std::max(pack->len, 0));
    }
    if (from != there) {
      if (begin < there) each(begin, there);
      begin = from;
    }
    there = have;
  }
  if (begin < there) each(begin, there);
}

void take_cache(c2ms_cache *cache, c2ms_stats *out) {
  const adif::Guard lock(cache->lock);
  const auto packsize = static_cast<uint64_t>(cache->packsize.load());
  out->position = cache->read_pos;
  out->size = cache->media_size;
  out->ring_begin = static_cast<uint64_t>(cache->first_index.load()) * packsize;
  out->ring_end = std::min(
      out->ring_begin + packsize * static_cast<uint64_t>(cache->packnum.load()), out->size);
  out->memory_bytes = static_cast<uint64_t>(cache->buffer_size);
  out->reads = static_cast<uint32_t>(cache->read_calls);
  out->short_reads = static_cast<uint32_t>(cache->short_reads);
  walk_buffered(cache, [out](uint64_t begin, uint64_t end) {
    out->buffered_bytes += end - begin;
    ++out->buffered_ranges;
    if (out->position >= begin && out->position < end) out->buffered_ahead = end - out->position;
  });
  c2ms_wait_stats *const waits[] = {&out->wait_no_node, &out->wait_late, &out->wait_seek,
                                    &out->wait_cancelled};
  for (size_t i = 0; i < std::size(waits); ++i) {
    *waits[i] = {cache->waits[i].count, cache->waits[i].total_us, cache->waits[i].longest_us};
  }
  const c2ms_sess *const sess = cache->session;
  const bool fetches_index =
      sess->idx_len != 0 &&
      (cache->use == cache_use::box_headers || std::memcmp(cache->fid, sess->idx_fid, 16) == 0);
  out->index_state = sess->idx_len == 0 ? 0 : sess->idx_mem != 0 ? 3 : fetches_index ? 2 : 1;
  out->index_bytes = sess->idx_buf_len;
}

void take_node(const c2ms_node *node, c2ms_node_stats *out) {
  static_assert(sizeof out->address == 64 && sizeof node->host == 64);
  std::memcpy(out->address, node->host, sizeof out->address);
  out->port = node->port;
  out->state = node->state;
  out->level = node->level;
  out->load = node->load;
  out->round_trip_us = static_cast<uint64_t>(std::max<int64_t>(node->perf.AvgRTT, 0));
  out->speed = node->perf.Speed;
  out->average_speed = node->perf.AvgSpeed;
}

void take_counts(const tally &counts, c2ms_node_stats *out) {
  out->bytes_received = counts.received;
  out->requests = counts.sent;
  out->completed = counts.completed;
  out->given_up = counts.given_up;
  out->failures = counts.failures;
}

void take_totals(const tally &sum, uint64_t forgotten, c2ms_stats *out) {
  out->bytes_received = sum.received;
  out->bytes_kept = sum.grown - forgotten;
  out->bytes_discarded = sum.received - out->bytes_kept;
  out->requests = sum.sent;
  out->completed = sum.completed;
  out->given_up = sum.given_up;
  out->in_flight = static_cast<uint32_t>(in_flight(sum));
  out->redundant = sum.redundant;
  out->won = sum.won;
  out->wasted = sum.wasted;
  out->failures = sum.failures;
}

// With the download under way, which recv_time gets at its end.
uint64_t receiving_us(c2ms_sess *sess) {
  const adif::Guard lock(sess->counter_lock);
  const int64_t since = sess->download_at_us;
  const int64_t now = sess->download_num > 0 ? std::max(now_us(), since) : since;
  return sess->recv_time + static_cast<uint64_t>(now - since);
}

// All counts of transfers at one moment, so that they add up.
void take_nodes(c2ms_sess *sess, c2ms_stats *out) {
  out->receiving_us = receiving_us(sess);
  const adif::Guard list(sess->list_lock);
  const adif::Guard lock(sess->speed_lock);
  tally sum = sess->departed;
  take_counts(sum, &out->gone);
  const int count = std::min<int>(sk_num(sess->node_list), C2MS_STATS_NODES);
  out->nodes = static_cast<uint32_t>(std::max(count, 0));
  for (int i = 0; i < count; ++i) {
    const auto *const node = static_cast<const c2ms_node *>(sk_value(sess->node_list, i));
    take_node(node, &out->node[i]);
    take_counts(node->counts, &out->node[i]);
    add_tally(sum, node->counts);
  }
  take_totals(sum, sess->forgotten, out);
  out->bytes_overhead = sess->total_bytes - sum.received;
  const double received = static_cast<double>(std::max<uint64_t>(sum.received, 1));
  out->gone.share = static_cast<double>(out->gone.bytes_received) / received;
  for (int i = 0; i < count; ++i) {
    out->node[i].share = static_cast<double>(out->node[i].bytes_received) / received;
  }
}

void take_session(c2ms_sess *sess, c2ms_stats *out) {
  out->bytes_delivered = sess->delivered;
  out->seeks = sess->seek_num;
  out->nodes_usable = static_cast<uint32_t>(std::max(sess->usable_num.load(), 0));
  out->units_queued = static_cast<uint32_t>(std::max(sess->unit_num.load(), 0));
  out->status = sess->status;
  out->report_state = sess->perf_state;
  out->agent_state = sess->auth_state;
  out->speed = c2ms_sess_realtime_recvspeed(sess);
  out->average_speed = c2ms_sess_average_recvspeed(sess);
  out->memory_cap_bytes = static_cast<uint64_t>(sess->mgmt->mem_size);
}

}  // namespace

}  // namespace c2ms

int c2ms_sess_stats(c2ms_sess *sess, c2ms_stats *stats, size_t struct_size) {
  using namespace c2ms;
  if (sess == nullptr) return -1;
  if (stats == nullptr) return -2;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_stats all{};
  all.struct_size = static_cast<uint32_t>(std::min(struct_size, sizeof all));
  take_session(sess, &all);
  if (c2ms_cache *const cache = sess->cache.load(); cache != nullptr) take_cache(cache, &all);
  {
    const Turn strand(sess);  // nodes stay where they are
    take_nodes(sess, &all);
  }
  std::memset(stats, 0, struct_size);
  std::memcpy(stats, &all, all.struct_size);
  return 0;
}

int c2ms_sess_ranges(c2ms_sess *sess, c2ms_byte_range *ranges, int max) {
  using namespace c2ms;
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  int count = 0;
  const adif::Guard lock(cache->lock);
  walk_buffered(cache, [&](uint64_t begin, uint64_t end) {
    if (ranges != nullptr && count < max) ranges[count] = {begin, end};
    ++count;
  });
  return count;
}
