// When a session reports on the two channels (c2ms_auth.h, c2ms_perf.h): at its checks, from the
// context's reporting thread, and when it closes, from the closing thread. No exchange runs inside
// a strand or on a thread of the engine.
#pragma once

#include "c2ms/c2ms_report.h"

namespace c2ms {

/// Hands the reporting of one check to the reporting thread: play begin where it has not been
/// accepted (the agent is pinged first), play alive about every 120 s afterwards. At most one check
/// of a session is queued or running; others have nothing more to say and are left out. Inside the
/// strand.
void report_check(c2ms_sess *sess);

/// What a session says when it closes, on this thread: cancels a queued check, waits for the
/// running exchange, then play begin where it is missing, and play end, on each channel that
/// answers. Blocks for the exchanges' waits. The session is closing and its strand is not held;
/// `facts` are its last.
void report_closing(c2ms_sess *sess, const report_facts &facts);

/// The same for a session that was never played, from the reporting thread; returns at once.
/// Dropped when many are waiting already.
void report_failed_open(const report_facts &facts);

}  // namespace c2ms
