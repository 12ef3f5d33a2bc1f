// See books.h.
#include "books.h"

#include "support/books.h"

namespace chaos {

void Books::enter(Findings &findings, c2ms_sess *sess) {
  const c2ms_stats stats = support::check_books(findings, sess);
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
