// Writes the session's figures as text and as JSON.
#include "tools/c2ms-get-stats.h"

#include <cinttypes>

#include "tools/c2ms-get-progress.h"

namespace get {
namespace {

std::string bytes(uint64_t count) {
  return text_of_bytes(static_cast<double>(count));
}

double seconds(uint64_t microseconds) {
  return static_cast<double>(microseconds) / 1e6;
}

const char *state_name(uint32_t state) {
  static constexpr const char *names[] = {"none",    "disconnected", "connecting", "connected",
                                          "listing", "describing",   "ready",      "downloading"};
  return state < std::size(names) ? names[state] : "unknown";
}

struct named_wait {
  const char *name;
  c2ms_wait_stats c2ms_stats::*wait;
};
constexpr named_wait waits[] = {{"no node", &c2ms_stats::wait_no_node},
                                {"late pack", &c2ms_stats::wait_late},
                                {"seek", &c2ms_stats::wait_seek},
                                {"cancelled", &c2ms_stats::wait_cancelled}};

uint64_t waited_us(const c2ms_stats &stats) {
  uint64_t sum = 0;
  for (const named_wait &each : waits) sum += (stats.*each.wait).total_us;
  return sum;
}

void print_node(const char *name, const c2ms_node_stats &node) {
  std::fprintf(stderr,
               "c2ms-get:   %-21s %-12s %10s (%2.0f %%), %" PRIu64 " of %" PRIu64
               " requests, %" PRIu64 " failures, %.1f ms, %s/s\n",
               name, state_name(node.state), bytes(node.bytes_received).c_str(), node.share * 100,
               node.completed, node.requests, node.failures,
               static_cast<double>(node.round_trip_us) / 1000,
               text_of_bytes(node.average_speed * 1000).c_str());
}

// Writes the members of one JSON object.
class Members {
 public:
  explicit Members(FILE *out) : out_(out) { std::fputc('{', out_); }
  ~Members() { std::fputc('}', out_); }
  Members(const Members &) = delete;
  Members &operator=(const Members &) = delete;
  void number(const char *name, uint64_t value) { std::fprintf(key(name), "%" PRIu64, value); }
  void real(const char *name, double value) { std::fprintf(key(name), "%.4f", value); }
  void text(const char *name, const char *value) { std::fprintf(key(name), "\"%s\"", value); }
  FILE *key(const char *name) {
    std::fprintf(out_, "%s\"%s\": ", first_ ? "" : ", ", name);
    first_ = false;
    return out_;
  }

 private:
  FILE *const out_;
  bool first_ = true;
};

void wait_json(Members *all, const char *name, const c2ms_wait_stats &wait) {
  Members members(all->key(name));
  members.number("count", wait.count);
  members.number("total_us", wait.total_us);
  members.number("longest_us", wait.longest_us);
}

void node_json(FILE *out, const c2ms_node_stats &node) {
  Members members(out);
  members.text("address", node.address);  // a dotted address or a host name: no quotes in it
  members.number("port", node.port);
  members.text("state", state_name(node.state));
  members.number("level", node.level);
  members.number("load", node.load);
  members.number("bytes_received", node.bytes_received);
  members.number("requests", node.requests);
  members.number("completed", node.completed);
  members.number("given_up", node.given_up);
  members.number("failures", node.failures);
  members.number("round_trip_us", node.round_trip_us);
  members.real("speed", node.speed);
  members.real("average_speed", node.average_speed);
  members.real("share", node.share);
}

struct named_count {
  const char *name;
  uint64_t c2ms_stats::*value;
};
constexpr named_count counts[] = {{"position", &c2ms_stats::position},
                                  {"size", &c2ms_stats::size},
                                  {"ring_begin", &c2ms_stats::ring_begin},
                                  {"ring_end", &c2ms_stats::ring_end},
                                  {"buffered_bytes", &c2ms_stats::buffered_bytes},
                                  {"buffered_ahead", &c2ms_stats::buffered_ahead},
                                  {"bytes_received", &c2ms_stats::bytes_received},
                                  {"bytes_kept", &c2ms_stats::bytes_kept},
                                  {"bytes_discarded", &c2ms_stats::bytes_discarded},
                                  {"bytes_delivered", &c2ms_stats::bytes_delivered},
                                  {"bytes_overhead", &c2ms_stats::bytes_overhead},
                                  {"receiving_us", &c2ms_stats::receiving_us},
                                  {"requests", &c2ms_stats::requests},
                                  {"completed", &c2ms_stats::completed},
                                  {"given_up", &c2ms_stats::given_up},
                                  {"redundant", &c2ms_stats::redundant},
                                  {"won", &c2ms_stats::won},
                                  {"wasted", &c2ms_stats::wasted},
                                  {"failures", &c2ms_stats::failures},
                                  {"memory_bytes", &c2ms_stats::memory_bytes},
                                  {"memory_cap_bytes", &c2ms_stats::memory_cap_bytes}};

struct named_small {
  const char *name;
  uint32_t c2ms_stats::*value;
};
constexpr named_small smalls[] = {{"seeks", &c2ms_stats::seeks},
                                  {"reads", &c2ms_stats::reads},
                                  {"short_reads", &c2ms_stats::short_reads},
                                  {"buffered_ranges", &c2ms_stats::buffered_ranges},
                                  {"in_flight", &c2ms_stats::in_flight},
                                  {"units_queued", &c2ms_stats::units_queued},
                                  {"index_state", &c2ms_stats::index_state},
                                  {"index_bytes", &c2ms_stats::index_bytes},
                                  {"report_state", &c2ms_stats::report_state},
                                  {"agent_state", &c2ms_stats::agent_state},
                                  {"nodes_usable", &c2ms_stats::nodes_usable}};

}  // namespace

std::string stats_words(const c2ms_stats &stats) {
  return format("buffer %s  nodes %" PRIu32 "/%" PRIu32
                "  received %s  discarded %s  waited %.1f s",
                bytes(stats.buffered_ahead).c_str(), stats.nodes_usable, stats.nodes,
                bytes(stats.bytes_received).c_str(), bytes(stats.bytes_discarded).c_str(),
                seconds(waited_us(stats)));
}

void print_stats(const c2ms_stats &stats) {
  std::fprintf(stderr,
               "c2ms-get: %s received, %s discarded; %" PRIu64 " requests, %" PRIu64
               " given up, %" PRIu64 " redundant (%" PRIu64 " were faster), %" PRIu64 " in vain\n",
               bytes(stats.bytes_received).c_str(), bytes(stats.bytes_discarded).c_str(),
               stats.requests, stats.given_up, stats.redundant, stats.won, stats.wasted);
  for (const named_wait &each : waits) {
    const c2ms_wait_stats &wait = stats.*each.wait;
    if (wait.count == 0) continue;
    std::fprintf(stderr, "c2ms-get: waited %" PRIu64 " times for %.2f s (longest %.2f s): %s\n",
                 wait.count, seconds(wait.total_us), seconds(wait.longest_us), each.name);
  }
  for (uint32_t i = 0; i < stats.nodes; ++i) {
    const c2ms_node_stats &node = stats.node[i];
    print_node((node.address + (":" + std::to_string(node.port))).c_str(), node);
  }
  if (stats.gone.requests > 0) print_node("connections that ended", stats.gone);
}

void print_stats_json(const c2ms_stats &stats, FILE *out) {
  Members all(out);
  for (const named_count &each : counts) all.number(each.name, stats.*each.value);
  for (const named_small &each : smalls) all.number(each.name, stats.*each.value);
  std::fprintf(all.key("status"), "%" PRId32, stats.status);
  all.real("speed", stats.speed);
  all.real("average_speed", stats.average_speed);
  wait_json(&all, "wait_no_node", stats.wait_no_node);
  wait_json(&all, "wait_late", stats.wait_late);
  wait_json(&all, "wait_seek", stats.wait_seek);
  wait_json(&all, "wait_cancelled", stats.wait_cancelled);
  node_json(all.key("gone"), stats.gone);
  std::fputc('[', all.key("nodes"));
  for (uint32_t i = 0; i < stats.nodes; ++i) {
    if (i > 0) std::fputs(", ", out);
    node_json(out, stats.node[i]);
  }
  std::fputc(']', out);
}

}  // namespace get
