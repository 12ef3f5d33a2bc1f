// One play through the library's player API, see play.h.
#include "bench/play.h"

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "c2ms/core/time.h"

namespace bench {

play::play(const std::string &url, int arena_bytes) {
  c2ms_set_diag(nullptr, nullptr);
  static const uint8_t hid[20] = {2, 0, 0, 0, 0, 1};
  library_ = c2ms_mgmt_init(nullptr, 1, 0, hid, arena_bytes);
  int32_t error = 0;
  const auto start = steady::now();
  session_ = c2ms_sess_open(library_, url.c_str(), &error);
  open_seconds_ = seconds_since(start);
  if (session_ == nullptr) {
    std::fprintf(stderr, "bench: open: %s\n", c2ms_sess_error(error));
    std::exit(1);
  }
  c2ms_sess_attr(session_, nullptr, nullptr, &size_, nullptr);
}

play::~play() {
  c2ms_sess_close(session_);
  c2ms_mgmt_clean(library_);
}

void play::cache(int pack_bytes, int nodes) {
  const auto start = steady::now();
  while (session_->usable_num.load() < nodes && seconds_since(start) < 10)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  c2ms_sess_cache_init(session_, pack_bytes);
}

void play::select_media() {
  c2ms_sess_range(session_, 0, size_);
}

figures run_play(const play_options &options) {
  play p(options.file->url(), options.ring_bytes);
  std::vector<char> out(static_cast<size_t>(options.read_bytes));
  p.cache(options.pack_bytes, options.nodes);
  const auto start = steady::now();
  const double cpu = cpu_seconds();
  p.select_media();
  uint64_t total = 0;
  while (total < p.size()) {
    const int n = c2ms_sess_read(p.session(), out.data(), options.read_bytes, 0);
    if (n <= 0) break;
    total += static_cast<uint64_t>(n);
  }
  return {
      {"seconds", seconds_since(start)}, {"cpu", cpu_seconds() - cpu}, {"bytes", double(total)}};
}

}  // namespace bench
