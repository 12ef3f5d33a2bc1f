#include "c2ms/c2ms_sess_report.h"

#include "c2ms/c2ms_auth.h"
#include "c2ms/c2ms_perf.h"
#include "c2ms/c2ms_sess.h"
#include "c2ms/c2ms_strand.h"
#include "c2ms/c2ms_time.h"

namespace c2ms {

namespace {

// States of a channel.
constexpr uint8_t not_begun = 0, begun = 1, agent_absent = 255;

// Counts a check; true for the first of each period.
bool alive_due(int32_t *count, int32_t check_s) {
  const int64_t second = int64_t{(*count)++} * check_s % alive_period_s;
  return second < check_s;
}

bool is_refusal(int result) {
  return result == 20 || result == 30 || result == 40;
}

// Ping and play begin, while `go_on()` holds between them. The agent's answer to play begin, or 0.
template <class GoOn>
int greet_agent(const report_facts &facts, std::atomic<uint8_t> *state, GoOn go_on) {
  if (c2ms_auth_ping(facts) < 0) {
    *state = agent_absent;
    return 0;
  }
  if (!go_on()) return 0;
  const int result = c2ms_auth_playbgn(facts);
  if (result == 0) *state = begun;
  return result;
}

void check_perf(c2ms_sess *sess) {
  if (sess->perf_state == not_begun && c2ms_perf_playbgn(sess) == 0) sess->perf_state = begun;
  if (sess->perf_state != begun || !is_live(sess)) return;
  if (alive_due(&sess->perf_alive_count, sess->mgmt->sess_check_time)) c2ms_perf_playalive(sess);
}

void check_auth(c2ms_sess *sess) {
  if (sess->auth_state == not_begun) {
    const auto go_on = [sess] { return is_live(sess); };
    const int result = greet_agent(report_facts_of(sess), &sess->auth_state, go_on);
    if (is_refusal(result)) c2ms_sess_refuse(sess, result);
  }
  if (sess->auth_state != begun || !is_live(sess)) return;
  if (alive_due(&sess->auth_alive_count, sess->mgmt->sess_check_time)) c2ms_auth_playalive(sess);
}

// Runs the check that is queued on this record. The record outlives the reporting thread; the
// session in it cannot be recycled while its check runs.
void run_check(c2ms_sess *sess) {
  report_job job = report_job::queued;
  if (!sess->report_job.compare_exchange_strong(job, report_job::running)) return;  // cancelled
  if (is_live(sess)) check_perf(sess);
  if (is_live(sess)) check_auth(sess);
  sess->report_job = report_job::none;
  SetEventAll(sess->report_event, 1);
}

void say_goodbye(const report_facts &facts, std::atomic<uint8_t> &perf,
                 std::atomic<uint8_t> &auth) {
  const auto go_on = [&facts] { return !facts.mgmt->closing.load(); };
  if (perf == not_begun && go_on() && c2ms_perf_playend_bgn(facts) >= 0) perf = begun;
  if (perf == begun && go_on()) c2ms_perf_playend(facts);
  if (auth == not_begun && go_on()) greet_agent(facts, &auth, go_on);
  if (auth == begun && go_on()) c2ms_auth_playend(facts);
}

}  // namespace

void report_check(c2ms_sess *sess) {
  c2ms_mgmt *const mgmt = sess->mgmt;
  // The first attempt to report makes every session's checks this far apart, whatever was
  // configured.
  if (sess->perf_state == not_begun || sess->auth_state == not_begun) {
    mgmt->sess_check_time = reporting_check_time_s;
  }
  report_job job = report_job::none;
  if (!sess->report_job.compare_exchange_strong(job, report_job::queued)) return;
  if (!mgmt->reporter.post([sess] { run_check(sess); })) sess->report_job = report_job::none;
}

void report_closing(c2ms_sess *sess, const report_facts &facts) {
  report_job job = report_job::queued;
  if (!sess->report_job.compare_exchange_strong(job, report_job::none)) {
    const auto done = [sess] { return sess->report_job == report_job::none; };
    WaitEventUntil(sess->report_event, steady::time_point::max(), done);
  }
  say_goodbye(facts, sess->perf_state, sess->auth_state);
}

void report_failed_open(const report_facts &facts) {
  c2ms_mgmt *const mgmt = facts.mgmt;
  if (mgmt->failed_opens.fetch_add(1) < max_failed_opens_waiting) {
    const auto job = [facts] {
      std::atomic<uint8_t> perf{not_begun}, auth{not_begun};
      say_goodbye(facts, perf, auth);
      facts.mgmt->failed_opens.fetch_sub(1);
    };
    if (mgmt->reporter.post(job)) return;
  }
  mgmt->failed_opens.fetch_sub(1);
}

}  // namespace c2ms
