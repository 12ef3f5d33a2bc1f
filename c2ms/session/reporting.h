// When a session reports on the two channels (report/auth.h, report/perf.h): at its checks and when
// it closes. No exchange runs inside a strand or on a thread of the engine. Each channel has
// reporting threads of its own, a free one for each session as long as 16 suffice: an exchange that
// waits delays nothing but its own session on its own channel, where the exchanges keep their
// order.
#pragma once

#include "c2ms/core/records.h"
#include "c2ms/report/report.h"

namespace c2ms {

/// The reporting of one check: hands each channel that has something to say to a reporting thread.
/// That is play begin until it is accepted (the agent is pinged first), then play alive at once and
/// about every 120 s, counted in checks. A channel whose exchange still runs begins no other.
/// Inside the strand.
void report_check(c2ms_sess *sess);

/// What a session says when it closes: after the exchange that may be running, play begin where it
/// is missing, and play end, on each channel that answers. Both channels at the same time, as long
/// as there is a thread. Blocks for the exchanges' waits. The session is closing and its strand is
/// not held; `facts` are its last.
void report_closing(c2ms_sess *sess, const report_facts &facts);

/// The same for a session that was never played, from the reporting threads; returns at once.
/// Dropped on a channel where many are waiting already.
void report_failed_open(const report_facts &facts);

}  // namespace c2ms
