#include "books.h"

namespace chaos {

void Books::enter(Findings &findings, c2ms_sess *sess) {
  c2ms_stats stats{};
  if (c2ms_sess_stats(sess, &stats, sizeof stats) != 0) return findings.add("no statistics");
  c2ms_node_stats sum = stats.gone;
  for (uint32_t i = 0; i < stats.nodes; ++i) {
    sum.bytes_received += stats.node[i].bytes_received;
    sum.requests += stats.node[i].requests;
    sum.failures += stats.node[i].failures;
  }
  if (stats.bytes_received != stats.bytes_kept + stats.bytes_discarded ||
      stats.requests != stats.completed + stats.given_up + stats.in_flight ||
      sum.bytes_received != stats.bytes_received || sum.requests != stats.requests ||
      sum.failures != stats.failures)
    findings.add("the statistics do not add up");
  if (stats.memory_bytes > stats.memory_cap_bytes) findings.add("more memory than the context's");
  received_ += stats.bytes_received + stats.bytes_overhead;
  completed_ += stats.completed;
}

void Books::audit(Findings &findings, const refserver::media_server &server, int nodes,
                  double seconds) {
  const refserver::node_totals served = server.totals();
  if (received_ > served.bytes_sent) {
    findings.add("%llu bytes were received of %llu that were sent",
                 static_cast<unsigned long long>(received_.load()),
                 static_cast<unsigned long long>(served.bytes_sent));
  }
  // Each session tries each server a few times at once, then with a pause that doubles until a
  // range was completed.
  const auto n = static_cast<uint64_t>(nodes);
  const auto while_waiting = static_cast<uint64_t>(seconds * 8) * n;
  const uint64_t allowed = 2 * opens_ * (n + 1) + 2 * completed_ + while_waiting;
  if (served.accepted > allowed) {
    findings.add("%llu connections for %llu opens and %llu ranges in %.1f s",
                 static_cast<unsigned long long>(served.accepted),
                 static_cast<unsigned long long>(opens_.load()),
                 static_cast<unsigned long long>(completed_.load()), seconds);
  }
}

}  // namespace chaos
