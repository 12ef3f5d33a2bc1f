// See play.h.
#include "play.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "c2ms/core/records.h"
#include "support/library.h"
#include "support/slack.h"

namespace sweep {

namespace {

using support::milliseconds;
using support::seconds_since;
using support::slack;

constexpr double failing_s = 0.7;  // failures "for good" end so long after the first
constexpr double recovery_s = 8;   // within which reads must go on then
// Of a play in steps: one that is asked for while the answer before it lies in the socket.
constexpr int32_t small_pack = 8192, big_pack = 40'000;

/// Ends failures that go on: as a device recovers while calls wait in the library.
class Referee {
 public:
  Referee() : thread_([this] { run(); }) {}
  ~Referee() {
    over_ = true;
    thread_.join();
  }
  Referee(const Referee &) = delete;
  Referee &operator=(const Referee &) = delete;

 private:
  void run() {
    while (!over_) {
      if (plan::active() && plan::since_first() > failing_s) plan::stop();
      std::this_thread::sleep_for(milliseconds(5));
    }
  }
  std::atomic<bool> over_{false};
  std::thread thread_;
};

/// Results that a step may give while something fails.
struct Errors {
  int32_t codes[8];
  bool has(int32_t code) const {
    return std::find(std::begin(codes), std::end(codes), code) != std::end(codes);
  }
};
constexpr Errors no_errors{};
constexpr Errors open_errors{{C2MS_NO_MEMORY, C2MS_ENTRY_UNAVAILABLE, C2MS_OPEN_TIMEOUT}};
constexpr Errors film_errors{
    {C2MS_NO_MEMORY, C2MS_ENTRY_UNAVAILABLE, C2MS_OPEN_TIMEOUT, C2MS_NO_CACHE_MEMORY}};
constexpr Errors cache_errors{{-2, -5}};
constexpr Errors index_errors{{-200, -201, -350, -400, C2MS_NO_MEMORY}};

class Play {
 public:
  Play(Report &report, const Media &media, script which)
      : report_(report), media_(media), which_(which) {}
  ~Play() { stop(); }
  Play(const Play &) = delete;
  Play &operator=(const Play &) = delete;

  void run();

 private:
  template <class Act>
  int in_library(const char *name, Act act);
  template <class Act>
  bool step(const char *name, const Errors &allowed, Act act);
  bool start();
  c2ms_mgmt *start_context() const;
  bool open();
  int begin_film();
  bool set_up();
  bool open_index();
  bool open_index_in_steps();
  bool read(uint64_t from, uint64_t to, bool waits);
  void close();
  void stop();
  bool failures_possible() const { return plan::injected() > 0; }

  Report &report_;
  const Media &media_;
  const script which_;
  c2ms_mgmt *mgmt_ = nullptr;
  c2ms_sess *sess_ = nullptr;
  support::Idle idle_;
};

template <class Act>
int Play::in_library(const char *name, Act act) {
  report_.doing = name;
  const plan::Exempt counted(false);
  return act();
}

/// An error that the step may give while something fails ends the failures; then it must succeed.
template <class Act>
bool Play::step(const char *name, const Errors &allowed, Act act) {
  int result = in_library(name, act);
  if (result >= 0) return true;
  const bool excused = failures_possible() && allowed.has(result);
  report_.said(name, result);
  plan::stop();
  if (!excused) report_.find("%s gave %d", name, result);
  result = in_library(name, act);
  if (result < 0) report_.find("%s gave %d when nothing failed any more", name, result);
  return excused && result >= 0;
}

c2ms_mgmt *Play::start_context() const {
  if (which_ != script::film) return c2ms_mgmt_init(configuration(), 1, 0, nullptr, 0);
  c2ms_options options{};
  options.struct_size = sizeof options;
  options.threads = 3;
  options.conf_path = configuration();
  return c2ms_mgmt_start(&options, nullptr);
}

bool Play::start() {
  // Without a library: no memory.
  const bool started = step("start", Errors{{-1}}, [this] {
    mgmt_ = start_context();
    return mgmt_ != nullptr ? 0 : -1;
  });
  if (!started) return false;
  support::shorten_waits(mgmt_);
  idle_ = support::idle_of(mgmt_);
  return true;
}

int Play::begin_film() {
  int32_t error = 0;
  sess_ = c2ms_sess_begin(mgmt_, media_.url.c_str(), nullptr, &error);
  if (sess_ == nullptr) return error;
  while ((error = c2ms_sess_wait(sess_, 1000)) == C2MS_OPENING) {
  }
  if (error != 0) c2ms_sess_end(std::exchange(sess_, nullptr));
  return error;
}

bool Play::open() {
  if (which_ == script::film) return step("begin", film_errors, [this] { return begin_film(); });
  const std::string url = which_ == script::play ? named(media_.url) : media_.url;
  return step("open", open_errors, [&] {
    int32_t error = 0;
    sess_ = c2ms_sess_open(mgmt_, url.c_str(), &error);
    return sess_ != nullptr ? 0 : error;
  });
}

bool Play::set_up() {
  uint64_t size = 0;
  c2ms_sess_attr(sess_, nullptr, nullptr, &size, nullptr);
  if (size != media_.bytes.size()) report_.find("the size is wrong");
  if (which_ == script::film) return true;
  const int32_t pack = which_ == script::play ? small_pack : big_pack;
  return step("cache", cache_errors,
              [&] { return c2ms_sess_cache_init(sess_, c2ms_sess_pack_size(sess_, pack)); }) &&
         step("range", no_errors,
              [this] { return c2ms_sess_range(sess_, 0, media_.bytes.size()); });
}

bool Play::open_index_in_steps() {
  const auto begin = support::clock::now();
  for (;;) {
    const int result =
        in_library("index", [this] { return c2ms_sess_idx_open_asyn(sess_, nullptr); });
    if (result >= 0) return true;
    if (result != C2MS_CACHING) {
      report_.said("index", result);
      plan::stop();
      if (!failures_possible() || !index_errors.has(result)) {
        report_.find("index gave %d", result);
        return false;
      }
    }
    if (seconds_since(begin) > failing_s + recovery_s * slack()) {
      report_.find("the index does not come");
      return false;
    }
    std::this_thread::sleep_for(milliseconds(2));
  }
}

bool Play::open_index() {
  if (which_ == script::play) return true;
  // A film that starts while something fails may do without.
  if (which_ == script::film && c2ms_sess_idx_size(sess_) == 0) {
    if (!failures_possible()) report_.find("the index is not open");
    return true;
  }
  bool opened = which_ == script::film;
  if (which_ == script::steps) opened = open_index_in_steps();
  if (which_ == script::index) {
    opened = step("index", index_errors, [this] { return c2ms_sess_idx_open(sess_, nullptr); });
  }
  if (!opened) return false;
  const uint64_t length = media_.bytes.size() - media_.moov_at;
  uint64_t offset = 0;
  c2ms_sess_idx_offset(sess_, &offset);
  if (offset != media_.moov_at || c2ms_sess_idx_size(sess_) != length)
    report_.find("the index lies elsewhere");
  return true;
}

/// Exact bytes from `from` to `to`, in the time that a recovery may take.
bool Play::read(uint64_t from, uint64_t to, bool waits) {
  static uint8_t buffer[50'000];
  if (in_library("seek", [&] { return c2ms_sess_seek(sess_, from); }) != 0) {
    report_.find("a seek failed");
    return false;
  }
  const auto begin = support::clock::now();
  for (uint64_t at = from; at < to;) {
    const auto length = static_cast<int32_t>(std::min<uint64_t>(sizeof buffer, to - at));
    const int n = in_library("read", [&]() -> int {
      if (which_ == script::film)
        return c2ms_sess_read_some(sess_, at, buffer, waits ? length : 1, length, -1);
      return waits ? c2ms_sess_read(sess_, buffer, length, 0)
                   : c2ms_sess_recv(sess_, buffer, length, 50);
    });
    if (n < 0 || n > length || (waits && n == 0)) {
      report_.find("a read of %d at %llu gave %d", length, static_cast<unsigned long long>(at), n);
      return false;
    }
    if (std::memcmp(buffer, media_.bytes.data() + at, static_cast<size_t>(n)) != 0) {
      report_.find("wrong bytes at %llu", static_cast<unsigned long long>(at));
      return false;
    }
    at += static_cast<uint64_t>(n);
    if (seconds_since(begin) > 2 + failing_s + recovery_s * slack()) {
      report_.find("no bytes at %llu", static_cast<unsigned long long>(at));
      return false;
    }
  }
  return true;
}

void Play::close() {
  if (sess_ == nullptr) return;
  const int result = in_library("close", [this] {
    return which_ == script::film ? c2ms_sess_end(sess_) : c2ms_sess_close(sess_);
  });
  if (result != 0) report_.find("close gave %d", result);
  sess_ = nullptr;
}

void Play::stop() {
  close();
  if (mgmt_ == nullptr) return;
  report_.doing = "aftermath";
  support::Findings findings;
  support::check_idle(findings, mgmt_, idle_);
  report_.find(std::move(findings));
  in_library("stop", [this] { return c2ms_mgmt_clean(mgmt_); });
  mgmt_ = nullptr;
}

void Play::run() {
  if (!start() || !open() || !set_up() || !open_index()) return;
  const uint64_t size = media_.bytes.size();
  const uint64_t middle = size * 2 / 5;
  if (!read(0, middle, true) || !read(size * 3 / 5, size, false) || !read(middle, size / 2, true))
    return;
  close();
}

}  // namespace

double run_play(Report &report, World &world, script which, const std::function<void()> &arm) {
  if (!world.start()) report.find("no server");
  const Media &media = which == script::play ? world.film : world.movie;
  const support::Holdings before = support::holdings_now();
  double took = 0;
  {
    const Referee referee;
    arm();
    took = support::took([&] { Play(report, media, which).run(); });
  }
  plan::stop();
  report.take_counts();
  report.doing = "the play after";
  Play(report, media, which).run();
  support::Findings findings;
  support::check_gone(findings, before);
  report.find(std::move(findings));
  world.server.stop();
  return took;
}

}  // namespace sweep
