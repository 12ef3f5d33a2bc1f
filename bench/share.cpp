// Measures what the next film costs the one that plays: both in one context, on servers that send
// no more than so much to all together.

#include <chrono>
#include <thread>
#include <vector>

#include "bench/sections.h"
#include "c2ms.h"

namespace bench {

namespace {

using clock = std::chrono::steady_clock;

constexpr uint64_t film_bytes = uint64_t{1} << 32;
constexpr double node_rate = 4e6;
constexpr int nodes = 4;

struct rates {
  double front = 0, back = 0;  // bytes a second
  double stalled = 0;          // seconds in which the foreground waited
};

uint64_t received(c2ms_sess *sess) {
  c2ms_stats stats;
  return c2ms_sess_stats(sess, &stats, sizeof stats) == 0 ? stats.bytes_received : 0;
}

// Reads as fast as it can (pace 0), or at a pace in bytes a second. What it got, and its waits.
rates read_for(c2ms_sess *front, c2ms_sess *back, double seconds, double pace) {
  std::vector<char> buf(1 << 20);
  const auto begin = clock::now();
  const auto since = [&] { return std::chrono::duration<double>(clock::now() - begin).count(); };
  const uint64_t back_before = back != nullptr ? received(back) : 0;
  rates r;
  double got = 0;
  while (since() < seconds) {
    const int32_t len = pace > 0 ? 32768 : 1 << 20;
    const double asked = since();
    const int n = c2ms_sess_read_some(front, C2MS_HERE, buf.data(), 1, len, 2000);
    r.stalled += since() - asked;
    if (n > 0) got += n;
    if (pace > 0 && got > pace * since())
      std::this_thread::sleep_for(std::chrono::duration<double>(got / pace - since()));
  }
  r.front = got / seconds;
  if (back != nullptr) r.back = static_cast<double>(received(back) - back_before) / seconds;
  return r;
}

/// weight 0: no second film.
rates play(const served_file &file, uint32_t weight, double pace, double seconds) {
  c2ms_options options{};
  options.struct_size = sizeof options;
  options.flags = C2MS_QUIET | C2MS_NO_REPORTS;
  options.memory = 512 << 20;
  c2ms_mgmt *const library = c2ms_mgmt_start(&options, nullptr);
  c2ms_film how{};
  how.struct_size = sizeof how;
  how.cache_bytes = 16 << 20;
  c2ms_sess *const front = c2ms_sess_start(library, file.url().c_str(), &how, nullptr);
  how.cache_bytes = 400 << 20;
  how.weight = weight;
  c2ms_sess *back = nullptr;
  if (weight > 0) back = c2ms_sess_start(library, file.url().c_str(), &how, nullptr);
  read_for(front, back, 2, pace);  // until the rates are known
  const rates r = read_for(front, back, seconds, pace);
  if (back != nullptr) c2ms_sess_end(back);
  c2ms_sess_end(front);
  c2ms_mgmt_clean(library);
  return r;
}

}  // namespace

void bench_share(const effort &e, results &out) {
  refserver::server_options options = plain_server(nodes);
  for (int node = 0; node < nodes; ++node)
    options.node.push_back({.rate_bytes_per_s = node_rate, .delay_ms = 20});
  const served_file file(any_cpu, film_bytes, options);
  const double seconds = e.quick() ? 3 : 8;
  const rates alone = play(file, 0, 0, seconds), beside = play(file, 1, 0, seconds);
  out.add({"two films", "foreground at full speed, with a background film beside without", "MB/s",
           beside.front / 1e6, alone.front / 1e6, true, 0.95});
  constexpr double all = nodes * node_rate;
  const rates half = play(file, 1, 0.5 * all, seconds);
  out.add({"two films", "foreground at half of the servers' speed, beside its pace", "MB/s",
           half.front / 1e6, 0.5 * all / 1e6, true, 0.98});
  out.add({"two films", "the background then, beside what is left", "MB/s", half.back / 1e6,
           0.5 * all / 1e6, true, 0.6});
}

}  // namespace bench
