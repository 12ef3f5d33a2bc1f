// Reopening and closing a session. c2ms.h describes the calls.
#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/records.h"
#include "c2ms/core/wake.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/session/entry.h"
#include "c2ms/session/object.h"
#include "c2ms/session/opening.h"
#include "c2ms/session/timers.h"

namespace {

using namespace c2ms;

int close_session(c2ms_sess *sess, last_report report) {
  if (sess == nullptr) return -1;
  const ContextCall call(sess->mgmt);
  c2ms_life live = c2ms_life::live;
  if (!sess->life.compare_exchange_strong(live, c2ms_life::closing)) return 0;
  wait_idle(sess);
  if (leave_to_opener(sess)) return 0;
  return recycle_session(sess, sess->opened == 0 ? report : last_report::handed_over);
}

}  // namespace

int c2ms_sess_reopen(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  const uint32_t address = resolve_entry(sess);
  const Turn strand(sess);
  rearm_timers(sess);
  return start_entry_exchange(sess, address);
}

int c2ms_sess_close(c2ms_sess *sess) {
  return close_session(sess, last_report::here);
}

int c2ms_sess_end(c2ms_sess *sess) {
  return close_session(sess, last_report::elsewhere);
}
