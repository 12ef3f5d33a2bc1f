// See driver.h.
#include "driver.h"

#include <cstdio>
#include <cstring>
#include <thread>

#include "support/library.h"
#include "viewer.h"

namespace chaos {

namespace {

constexpr int thread_count = 4;
constexpr int slot_count = 3;
constexpr uint64_t film_bytes = 3'000'001;

/// A place where some thread has opened a session that all may call.
struct Slot {
  std::atomic<c2ms_sess *> sess{nullptr};
  std::atomic<int> users{0};
  std::atomic<bool> opening{false};
};

class Driver {
 public:
  Driver(int64_t calls, uint64_t seed) : left_(calls), seed_(seed) {}
  int run();

 private:
  void work(int role);
  void act(Dice &dice, Slot &slot, c2ms_sess *sess);
  void open(Slot &slot);
  void close(Slot &slot);
  void read(Dice &dice, c2ms_sess *sess);
  void ask(Dice &dice, c2ms_sess *sess);
  void expect(const char *name, int result, std::initializer_list<int> results);

  std::atomic<int64_t> left_;
  clock::time_point begin_;
  const uint64_t seed_;
  std::unique_ptr<refserver::media_server> server_;
  refserver::file_id film_{};
  c2ms_mgmt *mgmt_ = nullptr;
  Slot slots_[slot_count];
  Findings findings_;
  std::atomic<uint64_t> opens_{0}, bytes_{0};
  current_call calls_[thread_count] = {};
};

// Any call may also meet a session that another thread is closing.
void Driver::expect(const char *name, int result, std::initializer_list<int> results) {
  if (result == C2MS_CLOSED) return;
  for (int one : results)
    if (result == one) return;
  findings_.add("%s gave %d", name, result);
}

void Driver::open(Slot &slot) {
  if (slot.opening.exchange(true)) return;
  if (slot.sess == nullptr && slot.users == 0) {
    int32_t error = 0;
    c2ms_sess *const sess = c2ms_sess_open(mgmt_, server_->url(film_).c_str(), &error);
    ++opens_;
    if (sess == nullptr) {
      findings_.add("open failed with %d", error);
    } else {
      // Packs that leave a rest of the memory to the other slots.
      const int cached = c2ms_sess_cache_init(sess, c2ms_sess_pack_size(sess, 3 << 20));
      if (cached == 0) c2ms_sess_range(sess, 0, film_bytes);
      expect("cache_init", cached, {0, -2, -3, -4});
      slot.sess = sess;
    }
  }
  slot.opening = false;
}

void Driver::close(Slot &slot) {
  c2ms_sess *const sess = slot.sess.exchange(nullptr);
  if (sess == nullptr) return;
  expect("close", opens_ % 2 == 0 ? c2ms_sess_close(sess) : c2ms_sess_end(sess), {0});
}

void Driver::read(Dice &dice, c2ms_sess *sess) {
  static thread_local uint8_t buffer[4096];
  const int32_t len = 1 + static_cast<int32_t>(dice.spread(sizeof buffer - 1));
  int n;
  switch (dice.below(4)) {
    case 0:
      n = c2ms_sess_read(sess, buffer, len, 1);
      break;
    case 1:
      n = c2ms_sess_recv(sess, buffer, len, dice.between(0, 2));
      break;
    case 2:
      n = c2ms_sess_read_at(sess, dice.below(film_bytes), buffer, len, dice.between(0, 2));
      break;
    default:
      n = c2ms_sess_read_some(sess, C2MS_HERE, buffer, dice.between(0, len), len,
                              dice.between(0, 2));
  }
  if (n > len) findings_.add("a read gave %d of %d", n, len);
  if (n > 0) bytes_ += static_cast<uint64_t>(n);
  if (n < 0) expect("read", n, {-2, -200, -201, C2MS_TIMED_OUT});
}

void Driver::ask(Dice &dice, c2ms_sess *sess) {
  int32_t ratio = -1;
  uint64_t size = 0;
  switch (dice.below(14)) {
    case 9:
      return expect("resize", c2ms_sess_resize(sess, dice.below(16 << 20)),
                    {0, -2, C2MS_NO_CACHE_MEMORY});
    case 10:
      return expect("weight", c2ms_sess_weight(sess, 1 + dice.below(2) * 99), {0});
    case 11:
      // Cancelled calls of the other threads give what a closing session gives.
      expect("cancel", c2ms_sess_cancel(sess, 1), {0});
      return expect("cancel", c2ms_sess_cancel(sess, 0), {0});
    case 12: {
      c2ms_stats stats;
      return expect("stats", c2ms_sess_stats(sess, &stats, sizeof stats), {0});
    }
    case 13:
      if (c2ms_sess_ready_fd(sess) == -1) findings_.add("no descriptor");
      return;
    case 0:
      return expect("bufratio", c2ms_sess_bufratio(sess, &ratio), {0, -2, -400});
    case 1:
      return expect("buffering", c2ms_sess_buffering(sess, dice.between(0, 1 << 20)), {0, -2});
    case 2:
      expect("attr", c2ms_sess_attr(sess, nullptr, nullptr, &size, nullptr), {0});
      if (size != 0 && size != film_bytes) findings_.add("attr gave another size");
      return;
    case 3:
      return expect("idxfile", c2ms_sess_idxfile(sess, nullptr, nullptr), {0});
    case 4:
      return expect("idx_open", c2ms_sess_idx_open_asyn(sess, nullptr), {0, -2});
    case 5:
      return expect("idx_close", c2ms_sess_idx_close(sess), {0});
    case 6:
      c2ms_sess_realtime_recvspeed(sess);
      c2ms_sess_average_recvspeed(sess);
      c2ms_sess_fasttime(sess);
      return;
    case 7:
      return expect("idx_attr", c2ms_sess_idx_attr(sess), {0});
    default: {
      if (!dice.one_in(8)) return;
      FILE *const nowhere = fopen("/dev/null", "we");
      c2ms_sess_print(sess, nowhere);
      fclose(nowhere);
    }
  }
}

void Driver::act(Dice &dice, Slot &slot, c2ms_sess *sess) {
  const uint64_t what = dice.below(1000);
  if (what < 2) return close(slot);
  if (what < 6) return expect("reopen", c2ms_sess_reopen(sess), {0, -100});
  if (what < 16) {
    const uint64_t base = dice.below(film_bytes - 1);
    return expect("range", c2ms_sess_range(sess, base, film_bytes - base), {0, -2, -201});
  }
  if (what < 18) return expect("cache_init", c2ms_sess_cache_init(sess, 3 << 20), {0, -2, -3, -4});
  if (what < 100) return expect("seek", c2ms_sess_seek(sess, dice.below(film_bytes)), {0, -2});
  return what < 650 ? read(dice, sess) : ask(dice, sess);
}

void Driver::work(int role) {
  Dice dice(seed_, static_cast<uint64_t>(role));
  // A slow build may have read nothing yet between the seeks.
  const auto goes_on = [this] {
    return left_.load() > 0 || (bytes_.load() == 0 && seconds_since(begin_) < 30);
  };
  while (goes_on() && !findings_.any()) {
    Slot &slot = slots_[dice.below(slot_count)];
    ++slot.users;
    c2ms_sess *const sess = slot.sess.load();
    if (sess != nullptr) act(dice, slot, sess), --left_;
    --slot.users;
    if (sess == nullptr) open(slot);
  }
}

int Driver::run() {
  const support::Holdings before = support::holdings_now();
  server_ = std::make_unique<refserver::media_server>(
      refserver::server_options{.nodes = 3, .keep_log = false});
  film_ = server_->add_generated("film.mp4", film_bytes);
  if (!server_->start()) return 2;
  support::Library library(16 << 20);
  mgmt_ = library.get();
  begin_ = clock::now();
  std::vector<std::thread> threads;
  for (int role = 0; role < thread_count; ++role) threads.emplace_back([=, this] { work(role); });
  for (std::thread &thread : threads) thread.join();
  const double took = seconds_since(begin_);
  for (Slot &slot : slots_) close(slot);
  library.check(findings_);
  library.clean();
  server_.reset();
  support::check_gone(findings_, before);
  for (const std::string &line : findings_.lines()) std::printf("%s\n", line.c_str());
  std::printf("%.1f s, %llu opens, %llu bytes read: %s\n", took,
              static_cast<unsigned long long>(opens_.load()),
              static_cast<unsigned long long>(bytes_.load()),
              findings_.any() ? "failed" : "as they should be");
  return findings_.any() || bytes_ == 0 ? 1 : 0;
}

}  // namespace

int drive(int64_t calls, uint64_t seed, adif::pool_mode pools) {
  adif::pool_test_mode(pools);
  return Driver(calls, seed).run();
}

}  // namespace chaos
