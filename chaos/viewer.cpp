// See viewer.h.
#include "viewer.h"

#include <cstring>
#include <ctime>
#include <thread>

namespace chaos {

namespace {

constexpr int32_t buffer_bytes = 100'000;
constexpr double at_once = 1.0;           // a call that does not wait
constexpr double until_recovered = 45.0;  // a lost session asks its entry server after 20 s

// Opens that wait for servers which are down give up after a second.
thread_local const World *opening_in = nullptr;

// A process whose players wait for servers that are silent does next to nothing.
class Idleness {
 public:
  explicit Idleness(Findings &findings) : findings_(findings) {}
  ~Idleness() {
    const double waited = seconds_since(begin_);
    const double cost = static_cast<double>(std::clock() - cost_) / CLOCKS_PER_SEC;
    if (waited > 5 && cost > (0.02 * waited + 0.3) * slack())
      findings_.add("%.2f processor seconds in %.1f s of waiting", cost, waited);
  }
  Idleness(const Idleness &) = delete;
  Idleness &operator=(const Idleness &) = delete;

 private:
  Findings &findings_;
  const clock::time_point begin_ = clock::now();
  const std::clock_t cost_ = std::clock();
};

int32_t give_up_in_a_storm() {
  return opening_in->calm ? 0 : -1;
}

// An open that is a handle: waited for in steps, and cancelled in a storm.
c2ms_sess *open_by_handle(const World &world, c2ms_mgmt *mgmt, const char *url, int32_t *error) {
  c2ms_film how{};
  how.struct_size = sizeof how;
  how.flags = C2MS_OPEN_ONLY;
  c2ms_sess *const sess = c2ms_sess_begin(mgmt, url, &how, error);
  if (sess == nullptr) return nullptr;
  int waits = 0;
  while ((*error = c2ms_sess_wait(sess, 25)) == C2MS_OPENING) {
    if (++waits > 20 && !world.calm) c2ms_sess_cancel(sess, 1);
  }
  if (*error == 0) return sess;
  c2ms_sess_end(sess);
  return nullptr;
}

}  // namespace

c2ms_sess *open_session(World &world, c2ms_mgmt *mgmt, Tally &tally, current_call &current) {
  int32_t error = 1;
  opening_in = &world;
  const std::string url = world.server.url(world.film);
  const bool by_handle = tally.opens % 2 == 1;
  c2ms_sess *const sess = timed(world.findings, current, "open", 24, [&] {
    return by_handle ? open_by_handle(world, mgmt, url.c_str(), &error)
                     : c2ms_sess_open1(mgmt, url.c_str(), &error, give_up_in_a_storm);
  });
  ++tally.opens;
  world.books.opened();
  if (sess != nullptr) {
    if (error != 0) world.findings.add("open gave a session and %d", error);
    return sess;
  }
  ++tally.failed_opens;
  const bool documented = error == C2MS_ENTRY_UNAVAILABLE || error == C2MS_OPEN_TIMEOUT ||
                          error == (by_handle ? C2MS_CANCELLED : C2MS_UNAUTHORIZED) ||
                          (world.refuses && error <= C2MS_MEDIA_NOT_EXIST && error >= C2MS_IN_DEBT);
  if (!documented) world.findings.add("open ended with %d", error);
  // Connections are refused at once: a player does not try again without a pause.
  std::this_thread::sleep_for(milliseconds(1));
  return nullptr;
}

Viewer::Viewer(World &world, c2ms_mgmt *mgmt, Tally &tally, uint64_t seed, uint64_t role)
    : current(nullptr), world_(world), mgmt_(mgmt), tally_(tally), dice_(seed, role) {}

Viewer::~Viewer() {
  close();
}

bool Viewer::allowed_refusal(int result) const {
  return world_.refuses && result <= C2MS_MEDIA_NOT_EXIST && result >= C2MS_IN_DEBT;
}

bool Viewer::open() {
  cached_ = index_open_ = false;
  sess_ = open_session(world_, mgmt_, tally_, current);
  if (sess_ == nullptr) return false;
  uint64_t size = 0;
  c2ms_sess_attr(sess_, nullptr, nullptr, &size, nullptr);
  if (size != world_.size) world_.findings.add("size %llu", static_cast<unsigned long long>(size));
  return prepare();
}

void Viewer::close() {
  if (sess_ == nullptr) return;
  world_.books.enter(world_.findings, sess_);
  const int result = timed(world_.findings, current, "close", 3, [&] {
    return dice_.one_in(2) ? c2ms_sess_close(sess_) : c2ms_sess_end(sess_);
  });
  if (result != 0) world_.findings.add("close gave %d", result);
  sess_ = nullptr;
}

bool Viewer::prepare() {
  // A big pack leaves a rest of the memory to another session.
  constexpr int32_t sizes[] = {4096, 16384, 65536, 262144, 3 << 20};
  pack_ = c2ms_sess_pack_size(sess_, dice_.of(sizes));
  const int result = timed(world_.findings, current, "cache_init", until_recovered,
                           [&] { return c2ms_sess_cache_init(sess_, pack_); });
  cached_ = result == 0;
  index_open_ = index_open_ && cached_;
  if (result != 0 && (result > -2 || result < -4)) world_.findings.add("cache gave %d", result);
  if (cached_) select_range(false, 0, world_.size);
  return cached_;
}

void Viewer::select_range(bool index_file, uint64_t base, uint64_t size) {
  // The last pack of such a size is never delivered.
  if (size % static_cast<uint64_t>(pack_) == 0) --size;
  const int result = timed(world_.findings, current, "set_media", at_once, [&] {
    return c2ms_sess_set_media(sess_, index_file ? 1 : 0, base, size);
  });
  if (result != 0) world_.findings.add("set_media gave %d", result);
  of_index_ = index_file;
  base_ = base;
  length_ = size;
  pos_ = 0;
}

void Viewer::select_file() {
  if (world_.index_size != 0 && dice_.one_in(3)) {
    return select_range(true, 0, world_.packed.size());
  }
  const uint64_t base = dice_.one_in(2) ? 0 : dice_.below(world_.size - 1);
  select_range(false, base, world_.size - base);
}

void Viewer::seek() {
  uint64_t to = dice_.below(length_ + 1);
  if (dice_.one_in(8)) to = dice_.one_in(2) ? 0 : length_ + dice_.spread(UINT32_MAX);
  const int result =
      timed(world_.findings, current, "seek", at_once, [&] { return c2ms_sess_seek(sess_, to); });
  if (result != 0) world_.findings.add("seek gave %d", result);
  if (length_ > 0) pos_ = std::min(to, length_ - 1);
}

bool Viewer::explains_short(uint64_t end) const {
  if (end >= length_ || world_.refuses) return true;
  return index_open_ && !of_index_ && base_ + end == world_.index_size;
}

// Judges what a read or receive has delivered for the position.
void Viewer::take(const char *name, int n, const uint8_t *bytes, int32_t wanted) {
  const auto at = static_cast<unsigned long long>(base_ + pos_);
  if (n == -200 && pos_ >= length_) return;
  if (allowed_refusal(n)) return;
  if (n < 0 || n > wanted || (n > 0 && pos_ + static_cast<uint64_t>(n) > length_)) {
    return world_.findings.add("%s gave %d of %d at %llu", name, n, wanted, at);
  }
  const auto count = static_cast<size_t>(n);
  if (of_index_ && bytes != nullptr) {
    if (std::memcmp(bytes, world_.packed.data() + base_ + pos_, count) != 0)
      world_.findings.add("%s: wrong byte of the index at %llu", name, at);
  } else if (bytes != nullptr) {
    const size_t same = refserver::content_mismatch(world_.film, base_ + pos_, bytes, count);
    if (same != count)
      world_.findings.add("%s: wrong byte at %llu + %zu of %d, index %d; these are of %lld", name,
                          at, same, n, index_open_,
                          static_cast<long long>(world_.place_of(bytes, count)));
  }
  pos_ += count;
  tally_.bytes += count;
}

void Viewer::read_some(bool may_wait) {
  static thread_local uint8_t buffer[buffer_bytes];
  const int32_t len = 1 + static_cast<int32_t>(dice_.spread(buffer_bytes - 1));
  uint8_t *const to = dice_.one_in(10) ? nullptr : buffer;
  int n;
  switch (may_wait ? dice_.below(4) : 1 + dice_.below(2)) {
    case 0:
      n = timed(world_.findings, current, "read", until_recovered,
                [&] { return c2ms_sess_read(sess_, to, len, 0); });
      take("read", n, to, len);
      if (n >= 0 && n < len && !explains_short(pos_))
        world_.findings.add("a waiting read ended with %d of %d", n, len);
      break;
    case 1:
      n = timed(world_.findings, current, "polling read", at_once,
                [&] { return c2ms_sess_read(sess_, to, len, 1); });
      take("polling read", n, to, len);
      break;
    case 3: {
      const int32_t min = dice_.between(0, len);
      n = timed(world_.findings, current, "read some", until_recovered, [&] {
        return c2ms_sess_read_some(sess_, C2MS_HERE, to, min, len, dice_.one_in(2) ? -1 : 20);
      });
      if (n == C2MS_TIMED_OUT && min > 0) break;
      take("read some", n, to, len);
      if (n >= 0 && n < min && pos_ < length_ && !world_.refuses)
        world_.findings.add("read some gave %d of at least %d", n, min);
      break;
    }
    default: {
      const int budget_ms = dice_.between(-1, 40);
      n = timed(world_.findings, current, "receive", at_once,
                [&] { return c2ms_sess_recv(sess_, to, len, budget_ms); });
      take("receive", n, to, len);
    }
  }
}

void Viewer::open_index() {
  if (of_index_) return;  // an open goes back to the range of the media
  uint32_t len = 0;
  const bool was_open = index_open_;
  const int result = timed(world_.findings, current, "idx_open", 32,
                           [&] { return c2ms_sess_idx_open(sess_, &len); });
  if (world_.index_size == 0 || was_open) {
    if (result != 0) world_.findings.add("idx_open without need gave %d", result);
    return;
  }
  ++tally_.indexes;
  pos_ = 0;
  index_open_ = result == 0;
  if (result == 0 ? len != world_.index_size : result != -200 && result != -201)
    world_.findings.add("idx_open gave %d with %u bytes", result, len);
}

void Viewer::poll_index() {
  if (of_index_ || index_open_ || world_.index_size == 0) return;
  int result = C2MS_CACHING;
  const auto end = clock::now() + milliseconds(dice_.between(0, 300));
  while (result == C2MS_CACHING && clock::now() < end) {
    uint32_t len = 0;
    result = timed(world_.findings, current, "idx_open_asyn", at_once,
                   [&] { return c2ms_sess_idx_open_asyn(sess_, &len); });
    std::this_thread::sleep_for(milliseconds(1));
  }
  ++tally_.indexes;
  pos_ = 0;
  index_open_ = result == 0;
  if (result == 0) return;
  if (result != C2MS_CACHING && !world_.refuses)
    world_.findings.add("idx_open_asyn gave %d", result);
  // Given up: the media is selected again.
  const int closed = timed(world_.findings, current, "idx_close", at_once,
                           [&] { return c2ms_sess_idx_close(sess_); });
  if (closed != 0) world_.findings.add("idx_close gave %d", closed);
  select_range(false, 0, world_.size);
}

// Calls that change nothing.
void Viewer::look() {
  int32_t ratio = -1;
  const int result = timed(world_.findings, current, "bufratio", at_once,
                           [&] { return c2ms_sess_bufratio(sess_, &ratio); });
  if ((result != 0 && result != -400) || ratio < 0 || ratio > 100)
    world_.findings.add("bufratio gave %d with %d %%", result, ratio);
  timed(world_.findings, current, "print", at_once, [&] {
    FILE *const nowhere = fopen("/dev/null", "we");
    c2ms_sess_print(sess_, nowhere);
    return fclose(nowhere);
  });
  timed(world_.findings, current, "buffering", at_once,
        [&] { return c2ms_sess_buffering(sess_, dice_.between(0, 1 << 20)); });
  if (c2ms_sess_fasttime(sess_) < 1) world_.findings.add("fasttime below 1");
  if (c2ms_sess_average_recvspeed(sess_) < 0) world_.findings.add("average speed below 0");
}

void Viewer::act() {
  ++tally_.calls;
  switch (dice_.below(40)) {
    case 0:
      close();
      return;
    case 1:
      prepare();
      return;
    case 2:
      return select_file();
    case 3: {
      const int result = timed(world_.findings, current, "reopen", at_once,
                               [&] { return c2ms_sess_reopen(sess_); });
      if (result != 0 && result != -100) world_.findings.add("reopen gave %d", result);
      return;
    }
    case 4:
      return dice_.one_in(8) ? open_index() : poll_index();
    case 5:
      if (index_open_) {
        if (c2ms_sess_idx_close(sess_) != 0) world_.findings.add("idx_close failed");
        index_open_ = false;
      }
      return;
    case 6:
      std::this_thread::sleep_for(milliseconds(dice_.between(1, 30)));
      return;
    case 7:
    case 8:
      return look();
    default:
      return dice_.one_in(4) ? seek() : read_some(true);
  }
}

void Viewer::storm() {
  while (!world_.calm && !world_.findings.any()) {
    if (sess_ == nullptr && !open() && sess_ == nullptr) continue;
    // Another session may hold all of the memory for now.
    if (!cached_) {
      close();
      std::this_thread::sleep_for(milliseconds(dice_.between(1, 20)));
      continue;
    }
    act();
  }
}

void Viewer::finish() {
  if (sess_ == nullptr && !open() && sess_ == nullptr)
    return world_.findings.add("no open after the storm");
  if (!cached_ && !prepare()) return close();  // the other one's memory
  if (dice_.one_in(2)) c2ms_sess_reopen(sess_);
  const uint64_t from = dice_.one_in(2) ? 0 : dice_.below(world_.size);
  select_range(false, from, world_.size - from);
  const auto begin = clock::now();
  static thread_local uint8_t buffer[buffer_bytes];
  while (pos_ < length_ && !world_.findings.any()) {
    const int32_t len = 1 + static_cast<int32_t>(dice_.below(buffer_bytes));
    const Idleness idleness(world_.findings);
    const int n = timed(world_.findings, current, "last read", until_recovered,
                        [&] { return c2ms_sess_read(sess_, buffer, len, 0); });
    take("last read", n, buffer, len);
    if (n < 0) std::this_thread::sleep_for(milliseconds(5));
    if (seconds_since(begin) > until_recovered * slack())
      return world_.findings.add("the film does not complete: %llu of %llu",
                                 static_cast<unsigned long long>(pos_),
                                 static_cast<unsigned long long>(length_));
  }
  close();
}

}  // namespace chaos
