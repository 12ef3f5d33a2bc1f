// Small benches of the foundation's and the engine's hot operations. Each runs beside what a C++
// program would use instead; the ratio of times is printed, above 1 means slower than the other.
// `bench_micro` measures for about ten seconds, `--once` for about a second, to see that all
// benches run. Other arguments are Google Benchmark's.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "adif/bmempool.h"
#include "adif/byteiter.h"
#include "adif/frame.h"
#include "adif/framext.h"
#include "adif/stack.h"
#include "eprobe/rac_rbtree.h"

namespace {

using benchmark::DoNotOptimize;

// Frame: 1000 appends, then 1000 takes of the same size from its head.
constexpr int kAppends = 1000;

void append_frame(int piece) {
  const std::string bytes(static_cast<size_t>(piece), 'x');
  frame_t *frame = createFrame(kAppends * piece);
  for (int i = 0; i < kAppends; ++i) putnLastBytes(&frame, bytes.data(), piece);
  DoNotOptimize(bytePointer(frame));
  deleteFrame(&frame);
}

void append_string(int piece) {
  const std::string bytes(static_cast<size_t>(piece), 'x');
  std::string text;
  text.reserve(static_cast<size_t>(kAppends * piece));
  for (int i = 0; i < kAppends; ++i) text.append(bytes.data(), bytes.size());
  DoNotOptimize(text.data());
}

void append_frame_bytewise(int) {
  frame_t *frame = createFrame(kAppends);
  for (int i = 0; i < kAppends; ++i) putLastByte(&frame, static_cast<uint8_t>(i));
  DoNotOptimize(bytePointer(frame));
  deleteFrame(&frame);
}

void append_string_bytewise(int) {
  std::string text;
  text.reserve(kAppends);
  for (int i = 0; i < kAppends; ++i) text.push_back(static_cast<char>(i));
  DoNotOptimize(text.data());
}

void consume_frame(int piece) {
  frame_t *frame = createFrame(0);
  appendnBytes(&frame, 'x', kAppends * piece);
  char out[256];
  while (frameLength(frame) > 0) {
    getnFirstBytes(frame, out, piece);
    DoNotOptimize(out);
  }
  deleteFrame(&frame);
}

void consume_string(int piece) {
  std::string text(static_cast<size_t>(kAppends * piece), 'x');
  char out[256];
  while (!text.empty()) {
    text.copy(out, static_cast<size_t>(piece));
    text.erase(0, static_cast<size_t>(piece));
    DoNotOptimize(out);
  }
}

// Byte iterator: 512 values of 8 bytes in network order, bounds checked in both.
constexpr int kValues = 512;
std::array<uint8_t, kValues * 8> wire;

uint64_t swapped(uint64_t value) {
  return std::endian::native == std::endian::little ? __builtin_bswap64(value) : value;
}

void iterator_get(int) {
  byte_iter it;
  iter_init(&it);
  iter_set_text(&it, wire.data(), wire.size());
  uint64_t value = 0, sum = 0;
  while (iter_get_uint64BE(&it, &value) == 0) sum += value;
  DoNotOptimize(sum);
}

void memcpy_get(int) {
  uint64_t value = 0, sum = 0;
  for (size_t at = 0; at + 8 <= wire.size(); at += 8) {
    std::memcpy(&value, &wire[at], 8);
    sum += swapped(value);
  }
  DoNotOptimize(sum);
}

void iterator_set(int) {
  byte_iter it;
  iter_init(&it);
  iter_set_text(&it, wire.data(), wire.size());
  for (uint64_t value = 1; iter_set_uint64BE(&it, value) == 0; ++value) continue;
  DoNotOptimize(wire.data());
  benchmark::ClobberMemory();
}

void memcpy_set(int) {
  uint64_t value = 1;
  for (size_t at = 0; at + 8 <= wire.size(); at += 8, ++value) {
    const uint64_t big = swapped(value);
    std::memcpy(&wire[at], &big, 8);
  }
  DoNotOptimize(wire.data());
  benchmark::ClobberMemory();
}

// Stack: n random keys inserted so that they stay sorted, then each found.
struct Element {
  uint32_t key;
};

std::vector<Element> elements(int n) {
  std::mt19937 random(1);
  std::vector<Element> made(static_cast<size_t>(n));
  for (Element &e : made) e.key = static_cast<uint32_t>(random());
  return made;
}

int by_key(const void *a, const void *b) {
  const uint32_t x = static_cast<const Element *>(a)->key, y = static_cast<const Element *>(b)->key;
  return (x > y) - (x < y);
}

bool less(const Element *a, const Element *b) {
  return a->key < b->key;
}

void stack_sorted(int n) {
  auto all = elements(n);
  pointer_stack *sk = sk_new(nullptr);
  for (Element &e : all) sk_sort_insert_by(sk, &e, by_key);
  for (Element &e : all) DoNotOptimize(sk_find_by(sk, &e, by_key));
  sk_free(sk);
}

void vector_sorted(int n) {
  auto all = elements(n);
  std::vector<Element *> sorted;
  for (Element &e : all)
    sorted.insert(std::upper_bound(sorted.begin(), sorted.end(), &e, less), &e);
  for (Element &e : all) DoNotOptimize(*std::lower_bound(sorted.begin(), sorted.end(), &e, less));
}

// Pool: n units fetched, then all recycled, ten times over.
constexpr int kUnitBytes = 1024, kRounds = 10;

void pool_units(int n) {
  static block_pool *const pool = [] {
    block_pool *made = BPoolInit(nullptr);
    setAutoAlloc(made, 1);
    setUnitSize(made, kUnitBytes);
    return made;
  }();
  std::vector<void *> units(static_cast<size_t>(n));
  for (int round = 0; round < kRounds; ++round) {
    for (void *&unit : units) unit = fetchUnit(pool);
    DoNotOptimize(units.data());
    for (void *unit : units) recycleUnit(pool, unit);
  }
}

void malloc_units(int n) {
  std::vector<void *> units(static_cast<size_t>(n));
  for (int round = 0; round < kRounds; ++round) {
    for (void *&unit : units) unit = std::malloc(kUnitBytes);
    DoNotOptimize(units.data());
    for (void *unit : units) std::free(unit);
  }
}

// Timer tree: n random keys inserted, then deleted in the same order.
void tree_insert_delete(int n) {
  auto keys = elements(n);
  std::vector<rac_rbtree_node> nodes(keys.size());
  rac_rbtree tree;
  rac_rbtree_node sentinel;
  rac_rbtree_init(&tree, &sentinel, rac_rbtree_insert_timer_value);
  for (size_t i = 0; i < keys.size(); ++i) {
    nodes[i].key = keys[i].key >> 2;  // within half the clock's range
    rac_rbtree_insert(&tree, &nodes[i]);
  }
  for (rac_rbtree_node &node : nodes) rac_rbtree_delete(&tree, &node);
}

void multimap_insert_delete(int n) {
  auto keys = elements(n);
  std::multimap<uint32_t, int> map;
  std::vector<std::multimap<uint32_t, int>::iterator> places;
  for (const Element &e : keys) places.push_back(map.emplace(e.key >> 2, 0));
  for (const auto place : places) map.erase(place);
}

struct Pair {
  const char *what, *other;
  int n;
  void (*ours)(int);
  void (*theirs)(int);
  const char *why;  // when ours may be slower than 1.5 times
};

constexpr const char *kIterator =
    "each value is checked against the end and moves the position; the plain loop is vectorised";
constexpr const char *kFrame = "a call into the library each time, which std::string inlines";
constexpr const char *kStack = "compares through a function pointer, which cannot be inlined";

constexpr const char *kPool = "takes a lock, which malloc's per-thread cache need not";

const Pair pairs[] = {
    {"frame: append a byte", "std::string", 1, append_frame_bytewise, append_string_bytewise,
     kFrame},
    {"frame: append 16 bytes", "std::string", 16, append_frame, append_string, kFrame},
    {"frame: append 256 bytes", "std::string", 256, append_frame, append_string, kFrame},
    {"frame: consume 16 bytes of 16 kB", "std::string", 16, consume_frame, consume_string, kFrame},
    {"frame: consume 256 bytes of 256 kB", "std::string", 256, consume_frame, consume_string,
     kFrame},
    {"iterator: get 64 bits", "memcpy and swap", 0, iterator_get, memcpy_get, kIterator},
    {"iterator: set 64 bits", "memcpy and swap", 0, iterator_set, memcpy_set, kIterator},
    {"stack: insert and find, 8", "sorted vector", 8, stack_sorted, vector_sorted, kStack},
    {"stack: insert and find, 100", "sorted vector", 100, stack_sorted, vector_sorted, kStack},
    {"stack: insert and find, 2000", "sorted vector", 2000, stack_sorted, vector_sorted, kStack},
    {"pool: fetch and recycle, 8", "malloc and free", 8, pool_units, malloc_units, kPool},
    {"pool: fetch and recycle, 500", "malloc and free", 500, pool_units, malloc_units, kPool},
    {"tree: insert and delete, 50", "std::multimap", 50, tree_insert_delete, multimap_insert_delete,
     ""},
    {"tree: insert and delete, 500", "std::multimap", 500, tree_insert_delete,
     multimap_insert_delete, ""},
};

/// Keeps the best time of each bench, by name.
class Best : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context &) override { return true; }
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const double ns = run.GetAdjustedRealTime();
      double &best = best_.try_emplace(run.run_name.function_name, ns).first->second;
      best = std::min(best, ns);
    }
  }
  double of(const std::string &name) const {
    const auto at = best_.find(name);
    return at == best_.end() ? 0 : at->second;
  }

 private:
  std::map<std::string, double> best_;
};

void add(const std::string &name, void (*body)(int), int n) {
  benchmark::RegisterBenchmark(name.c_str(), [body, n](benchmark::State &state) {
    for ([[maybe_unused]] auto _ : state) body(n);
  })->Repetitions(5);
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<char *> arguments(argv, argv + argc);
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char seconds[] = "--benchmark_min_time=0.05", at_once[] = "--benchmark_min_time=0.002";
  const auto is_once = [](const char *argument) { return std::strcmp(argument, "--once") == 0; };
  const bool once = std::erase_if(arguments, is_once) > 0;
  arguments.insert(arguments.begin() + 1, {interleave, once ? at_once : seconds});
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

  for (const Pair &pair : pairs) {
    add(std::string(pair.what) + "|ours", pair.ours, pair.n);
    add(std::string(pair.what) + "|theirs", pair.theirs, pair.n);
  }
  Best best;
  benchmark::RunSpecifiedBenchmarks(&best);
  std::printf("%-36s %10s %10s  ratio  against\n", "", "ours, ns", "other, ns");
  for (const Pair &pair : pairs) {
    const double ours = best.of(std::string(pair.what) + "|ours");
    const double theirs = best.of(std::string(pair.what) + "|theirs");
    if (ours == 0 || theirs == 0) continue;
    std::printf("%-36s %10.0f %10.0f  %5.2f  %s\n", pair.what, ours, theirs, ours / theirs,
                pair.other);
    if (ours > 1.5 * theirs) std::printf("    slower because: %s\n", pair.why);
  }
  return 0;
}
