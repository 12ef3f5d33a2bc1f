// See reporting.h.
#include "c2ms/session/reporting.h"

#include "c2ms/core/call.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/core/wake.h"
#include "c2ms/report/auth.h"
#include "c2ms/report/perf.h"
#include "c2ms/report/report.h"

namespace c2ms {

namespace {

// States of a channel.
constexpr uint8_t not_begun = 0, begun = 1, agent_absent = 255;

// One of the two channels: its words in session and context, and what is said on it.
struct channel {
  std::atomic<uint8_t> c2ms_sess::*state;
  int32_t c2ms_sess::*alive_count;
  bool c2ms_sess::*alive_owed;
  std::atomic<report_job> c2ms_sess::*job;
  Worker c2ms_mgmt::*threads;
  std::atomic<int> c2ms_mgmt::*failed_opens;
  uint8_t (*begin)(c2ms_sess *sess);  // the state that follows
  int (*alive)(c2ms_sess *sess);
  void (*goodbye)(const report_facts &facts, std::atomic<uint8_t> &state);
};

// Counts a check after the one that began the play; true for the first of each period.
bool alive_due(int32_t *count, int32_t check_s) {
  const int64_t second = int64_t{++*count} * check_s % alive_period_s;
  return second < check_s;
}

bool is_refusal(int result) {
  return result == 20 || result == 30 || result == 40;
}

// Nothing new is begun then: the farewell stays untold.
bool cleaning_up(const report_facts &facts) {
  const bool cleaning = facts.mgmt->closing.load();
  if (cleaning && facts.untold != nullptr) *facts.untold = true;
  return cleaning;
}

uint8_t begin_perf(c2ms_sess *sess) {
  return c2ms_perf_playbgn(sess) == 0 ? begun : not_begun;
}

void end_perf(const report_facts &facts, std::atomic<uint8_t> &state) {
  if (state == not_begun && !cleaning_up(facts) && c2ms_perf_playend_bgn(facts) >= 0) state = begun;
  if (state == begun && !cleaning_up(facts)) c2ms_perf_playend(facts);
}

uint8_t begin_auth(c2ms_sess *sess) {
  const report_facts facts = report_facts_of(sess);
  if (c2ms_auth_ping(facts) < 0) return agent_absent;
  if (!is_live(sess)) return not_begun;
  const int result = c2ms_auth_playbgn(facts);
  if (is_refusal(result)) c2ms_sess_refuse(sess, result);
  return result == 0 ? begun : not_begun;
}

void end_auth(const report_facts &facts, std::atomic<uint8_t> &state) {
  if (state == not_begun && !cleaning_up(facts) && c2ms_auth_ping(facts) < 0) state = agent_absent;
  if (state == not_begun && !cleaning_up(facts) && c2ms_auth_playbgn(facts) == 0) state = begun;
  if (state == begun && !cleaning_up(facts)) c2ms_auth_playend(facts);
}

constexpr channel perf = {&c2ms_sess::perf_state,
                          &c2ms_sess::perf_alive_count,
                          &c2ms_sess::perf_alive_owed,
                          &c2ms_sess::perf_job,
                          &c2ms_mgmt::perf_reporter,
                          &c2ms_mgmt::perf_failed_opens,
                          begin_perf,
                          c2ms_perf_playalive,
                          end_perf};
constexpr channel auth = {&c2ms_sess::auth_state,
                          &c2ms_sess::auth_alive_count,
                          &c2ms_sess::auth_alive_owed,
                          &c2ms_sess::auth_job,
                          &c2ms_mgmt::auth_reporter,
                          &c2ms_mgmt::auth_failed_opens,
                          begin_auth,
                          c2ms_auth_playalive,
                          end_auth};

void check(c2ms_sess *sess, const channel &on) {
  std::atomic<uint8_t> &state = sess->*on.state;
  if (state == not_begun) state = on.begin(sess);
  if (state == begun && is_live(sess)) on.alive(sess);
}

// Runs what is queued on this record: a check, or the farewell once the session closes, which may
// be during the check. The record outlives the reporting threads; the session in it cannot be
// recycled while its job runs.
void run(c2ms_sess *sess, const channel &on) {
  std::atomic<report_job> &job = sess->*on.job;
  report_job expected = report_job::queued;
  if (!job.compare_exchange_strong(expected, report_job::running)) return;  // done by another
  if (is_live(sess)) check(sess, on);
  const report_facts *const last = sess->farewell;
  if (last != nullptr) on.goodbye(*last, sess->*on.state);
  job = last != nullptr ? report_job::ended : report_job::none;
  SetEventAll(sess->report_event, 1);
}

// False when a job is queued or running already, or no thread can be had.
bool queue(c2ms_sess *sess, const channel &on) {
  std::atomic<report_job> &job = sess->*on.job;
  report_job expected = report_job::none;
  if (!job.compare_exchange_strong(expected, report_job::queued)) return false;
  if ((sess->mgmt->*on.threads).post([sess, &on] { run(sess, on); })) return true;
  expected = report_job::queued;
  job.compare_exchange_strong(expected, report_job::none);
  return false;
}

void check_later(c2ms_sess *sess, const channel &on) {
  bool &alive_owed = sess->*on.alive_owed;
  const uint8_t state = sess->*on.state;
  if (state == begun && alive_due(&(sess->*on.alive_count), sess->mgmt->sess_check_time)) {
    alive_owed = true;
  }
  if (state != not_begun && !alive_owed) return;
  if (queue(sess, on)) alive_owed = false;
}

// Waits until a reporting thread has said the farewell; says it here if none has begun to.
void end(c2ms_sess *sess, const channel &on, const report_facts &facts) {
  std::atomic<report_job> &job = sess->*on.job;
  const auto not_running = [&job] { return job != report_job::running; };
  for (;;) {
    WaitEventUntil(sess->report_event, steady::time_point::max(), not_running);
    report_job seen = job;
    if (seen == report_job::ended) return;
    if (seen == report_job::running) continue;
    if (job.compare_exchange_strong(seen, report_job::ended)) break;
  }
  on.goodbye(facts, sess->*on.state);
}

void report_failed_open(const report_facts &facts, const channel &on) {
  c2ms_mgmt *const mgmt = facts.mgmt;
  if ((mgmt->*on.failed_opens).fetch_add(1) < max_failed_opens_waiting) {
    const auto job = [facts, &on] {
      std::atomic<uint8_t> state{not_begun};
      on.goodbye(facts, state);
      (facts.mgmt->*on.failed_opens).fetch_sub(1);
    };
    if ((mgmt->*on.threads).post(job)) return;
  }
  (mgmt->*on.failed_opens).fetch_sub(1);
}

}  // namespace

void report_check(c2ms_sess *sess) {
  check_inside(sess);
  if (!sess->mgmt->reports) return;
  // The first attempt to report makes every session's checks this far apart, whatever was
  // configured.
  if (sess->perf_state == not_begun || sess->auth_state == not_begun) {
    sess->mgmt->sess_check_time = sess->mgmt->patience.reporting_check_s;
  }
  check_later(sess, perf);
  check_later(sess, auth);
}

void report_closing(c2ms_sess *sess, const report_facts &facts) {
  if (!facts.mgmt->reports) return;
  sess->farewell = &facts;
  queue(sess, perf);
  end(sess, auth, facts);
  end(sess, perf, facts);
  sess->farewell = nullptr;
  sess->perf_alive_owed = sess->auth_alive_owed = false;
  sess->perf_job = sess->auth_job = report_job::none;
}

void report_failed_open(const report_facts &facts) {
  if (!facts.mgmt->reports) return;
  report_failed_open(facts, perf);
  report_failed_open(facts, auth);
}

}  // namespace c2ms
