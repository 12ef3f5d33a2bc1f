// See books.h.
#include "support/books.h"

#include <cmath>

namespace support {

c2ms_stats check_books(Findings &findings, c2ms_sess *sess) {
  c2ms_stats s{};
  if (c2ms_sess_stats(sess, &s, sizeof s) != 0) findings.add("no statistics");
  c2ms_node_stats sum = s.gone;
  for (uint32_t i = 0; i < s.nodes; ++i) {
    sum.bytes_received += s.node[i].bytes_received;
    sum.requests += s.node[i].requests;
    sum.completed += s.node[i].completed;
    sum.given_up += s.node[i].given_up;
    sum.failures += s.node[i].failures;
    sum.share += s.node[i].share;
  }
  const auto equal = [&findings](const char *what, uint64_t one, uint64_t other) {
    if (one == other) return;
    findings.add("%s: %llu and %llu", what, static_cast<unsigned long long>(one),
                 static_cast<unsigned long long>(other));
  };
  equal("received by all nodes", sum.bytes_received, s.bytes_received);
  equal("asked of all nodes", sum.requests, s.requests);
  equal("completed by all nodes", sum.completed, s.completed);
  equal("given up by all nodes", sum.given_up, s.given_up);
  equal("failures of all nodes", sum.failures, s.failures);
  equal("received", s.bytes_received, s.bytes_kept + s.bytes_discarded);
  equal("asked", s.requests, s.completed + s.given_up + s.in_flight);
  if (s.bytes_received > 0 && std::abs(sum.share - 1) >= 0.001)
    findings.add("the shares make %f", sum.share);
  if (s.in_flight > 2 * s.nodes || s.won > s.redundant || s.wasted > s.completed)
    findings.add("more in flight, won or wasted than can be");
  if (s.memory_bytes > s.memory_cap_bytes) findings.add("more memory than the context's");
  return s;
}

}  // namespace support
