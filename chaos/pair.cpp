// See pair.h.
#include "pair.h"

#include <algorithm>
#include <thread>

namespace chaos {

namespace {

constexpr int32_t buffer_bytes = 60'000;
constexpr int least_located = 8;

}  // namespace

Pair::Pair(World &world, c2ms_mgmt *mgmt, Tally &tally, uint64_t seed)
    : reader_call(nullptr),
      other_call(nullptr),
      world_(world),
      mgmt_(mgmt),
      tally_(tally),
      reader_dice_(seed, 11),
      other_dice_(seed, 12) {}

c2ms_sess *Pair::use() {
  ++users_;
  c2ms_sess *const sess = sess_.load();
  if (sess == nullptr) end_use();
  return sess;
}

size_t Pair::moves_over() const {
  size_t count = moves_.size();
  while (count > 0 && !moves_[count - 1].over) --count;
  return count;
}

void Pair::move_to(uint64_t to, const std::function<int()> &call) {
  {
    const std::lock_guard lock(moves_lock_);
    moves_.push_back({to, false, base_});
  }
  const int result = timed(world_.findings, other_call, "move", 1.0, call);
  if (result != 0) world_.findings.add("a move gave %d", result);
  const std::lock_guard lock(moves_lock_);
  moves_.back().over = true;
}

void Pair::select_file(c2ms_sess *sess) {
  base_ = other_dice_.one_in(2) ? 0 : other_dice_.below(world_.size - 1);
  length_ = world_.size - base_;
  if (length_ % static_cast<uint64_t>(pack_) == 0) --length_;
  move_to(base_, [&] { return c2ms_sess_range(sess, base_, length_); });
}

bool Pair::open() {
  c2ms_sess *const sess = open_session(world_, mgmt_, tally_, other_call);
  if (sess == nullptr) return false;
  constexpr int32_t sizes[] = {4096, 16384, 65536};
  pack_ = c2ms_sess_pack_size(sess, other_dice_.of(sizes));
  if (const int result = c2ms_sess_cache_init(sess, pack_); result != 0)
    world_.findings.add("cache_init gave %d", result);
  select_file(sess);
  sess_ = sess;
  return true;
}

void Pair::close() {
  c2ms_sess *const sess = sess_.exchange(nullptr);
  if (sess == nullptr) return;
  world_.books.enter(world_.findings, sess);
  const int result = timed(world_.findings, other_call, "close", 3, [&] {
    return other_dice_.one_in(2) ? c2ms_sess_close(sess) : c2ms_sess_end(sess);
  });
  if (result != 0) world_.findings.add("close gave %d", result);
  while (users_ > 0) std::this_thread::yield();
}

void Pair::seek(c2ms_sess *sess) {
  const uint64_t to = other_dice_.below(length_ + 1);
  const uint64_t lands = base_ + std::min(to, length_ - 1);
  move_to(lands, [&] { return c2ms_sess_seek(sess, to); });
}

void Pair::act(c2ms_sess *sess) {
  ++tally_.calls;
  switch (other_dice_.below(20)) {
    case 0:
      return close();
    case 1:
    case 2:
      return select_file(sess);
    case 3: {
      const int result = c2ms_sess_reopen(sess);
      if (result != 0 && result != -100) world_.findings.add("reopen gave %d", result);
      return;
    }
    case 4: {
      // The packs change under the reader, who waits at the gate or is thrown out.
      const int result = timed(world_.findings, other_call, "cache_init", 1.0,
                               [&] { return c2ms_sess_cache_init(sess, pack_); });
      if (result != 0) world_.findings.add("cache_init gave %d", result);
      return select_file(sess);
    }
    case 6: {
      // The reader goes on where it was.
      const uint64_t bytes = other_dice_.below(12 << 20);
      const int result = timed(world_.findings, other_call, "resize", 1.0,
                               [&] { return c2ms_sess_resize(sess, bytes); });
      if (result != 0 && result != C2MS_NO_CACHE_MEMORY)
        world_.findings.add("resize gave %d", result);
      return;
    }
    case 5: {
      int32_t ratio = -1;
      const int result = c2ms_sess_bufratio(sess, &ratio);
      if (result != 0 && result != -400) world_.findings.add("bufratio gave %d", result);
      FILE *const nowhere = fopen("/dev/null", "we");
      c2ms_sess_print(sess, nowhere);
      fclose(nowhere);
      return;
    }
    default:
      seek(sess);
  }
}

void Pair::disturb() {
  while (!world_.calm && !world_.findings.any()) {
    c2ms_sess *const sess = sess_.load();
    if (sess == nullptr) {
      open();
      continue;
    }
    act(sess);
    std::this_thread::sleep_for(std::chrono::microseconds(other_dice_.spread(20'000)));
  }
  // With everything there, most reads deliver: seeks without a pause fall into the middle of some.
  if (sess_ != nullptr || open())
    for (int i = 0; i < 3000 && !world_.findings.any(); ++i) seek(sess_);
  over_ = true;
  close();
}

void Pair::locate(const uint8_t *bytes, int n, size_t over_at_begin) {
  const std::lock_guard lock(moves_lock_);
  // A few bytes lie in many places: where these were from stays open, and so does what follows.
  const auto count = static_cast<size_t>(n);
  const auto lies_at = [&](uint64_t pos) {
    return refserver::content_mismatch(world_.film, pos, bytes, count) == count;
  };
  // A move that began after the last delivery and was over before this read began must show.
  const bool moved = over_at_begin > known_then_;
  const size_t first = moved ? over_at_begin - 1 : oldest_possible_;
  uint64_t at = expected_;
  bool found = !moved && located_ && lies_at(at);
  for (size_t i = moves_.size(); !found && i-- > first;) found = lies_at(at = moves_[i].to);
  for (size_t i = perhaps_.size(); !found && i-- > 0;) found = lies_at(at = perhaps_[i]);
  if (!found && !moved && !located_) found = (at = world_.place_of(bytes, count)) != World::nowhere;
  if (!found) {
    world_.findings.add("%d bytes from %lld that no order of the calls explains, expected at %llu",
                        n, static_cast<long long>(world_.place_of(bytes, count)),
                        static_cast<unsigned long long>(expected_));
  }
  ended_at(at + count, n >= least_located, over_at_begin);
}

// Its bytes are those of the position in one of the ranges that were selected meanwhile. One that
// delivers nothing may have moved the position all the same.
int Pair::read_at_once(c2ms_sess *sess, uint8_t *buffer, int32_t len, size_t over_at_begin) {
  const uint64_t pos = reader_dice_.below(world_.size);
  const int budget_ms = reader_dice_.between(0, 30);
  const int n = timed(world_.findings, reader_call, "read at", 1.0,
                      [&] { return c2ms_sess_read_at(sess, pos, buffer, len, budget_ms); });
  const std::lock_guard lock(moves_lock_);
  const auto count = static_cast<size_t>(std::clamp(n, 0, len));
  bool found = false;
  uint64_t at = 0;
  for (size_t i = moves_.size(); !found && i-- > std::max<size_t>(over_at_begin, 1) - 1;) {
    at = moves_[i].base + pos;
    if (n == 0) perhaps_.push_back(at);
    found = n > 0 && refserver::content_mismatch(world_.film, at, buffer, count) == count;
  }
  if (n <= 0) return n;
  if (!found) {
    world_.findings.add("%d bytes from elsewhere than %llu", n,
                        static_cast<unsigned long long>(pos));
  }
  ended_at(at + count, n >= least_located, over_at_begin);
  return n;
}

void Pair::ended_at(uint64_t pos, bool located, size_t over_at_begin) {
  located_ = located;
  expected_ = pos;
  oldest_possible_ = over_at_begin;
  known_then_ = moves_.size();
  perhaps_.clear();
}

void Pair::read_once(c2ms_sess *sess) {
  static thread_local uint8_t buffer[buffer_bytes];
  const int32_t len = 8 + static_cast<int32_t>(reader_dice_.spread(buffer_bytes - 8));
  size_t over_at_begin;
  {
    const std::lock_guard lock(moves_lock_);
    over_at_begin = moves_over();
  }
  int n;
  const bool at_a_position = reader_dice_.one_in(3);
  if (at_a_position) {
    n = read_at_once(sess, buffer, len, over_at_begin);
  } else if (reader_dice_.one_in(3)) {
    n = timed(world_.findings, reader_call, "read", 45,
              [&] { return c2ms_sess_read(sess, buffer, len, 0); });
  } else {
    const int budget_ms = reader_dice_.between(0, 30);
    n = timed(world_.findings, reader_call, "receive", 1.0,
              [&] { return c2ms_sess_recv(sess, buffer, len, budget_ms); });
  }
  ++tally_.calls;
  if (n > 0) {
    tally_.bytes += static_cast<uint64_t>(n);
    if (n > len) return world_.findings.add("%d of %d", n, len);
    return at_a_position ? void() : locate(buffer, n, over_at_begin);
  }
  // (Who reads again at once hardly lets the other thread do anything.)
  if (n == 0) std::this_thread::sleep_for(std::chrono::microseconds(reader_dice_.spread(300)));
  const bool refusal = world_.refuses && n <= C2MS_MEDIA_NOT_EXIST && n >= C2MS_IN_DEBT;
  if (n == 0 || n == -200 || n == -201 || n == C2MS_CLOSED || refusal) return;
  world_.findings.add("a read gave %d", n);
}

void Pair::read_on() {
  while (!over_) {
    c2ms_sess *const sess = use();
    if (sess == nullptr) {
      std::this_thread::sleep_for(milliseconds(1));
      continue;
    }
    read_once(sess);
    end_use();
  }
}

}  // namespace chaos
