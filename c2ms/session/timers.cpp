// See timers.h.
#include "c2ms/session/timers.h"

#include "c2ms/core/count.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/core/timer.h"
#include "c2ms/fetch/node.h"

using namespace c2ms;

void c2ms_sess_start_speed_timer(c2ms_sess *sess) {
  check_inside(sess);
  if (sess->speed_timer != nullptr) return;
  const auto period_ms = static_cast<uint32_t>(sess->mgmt->speed_count_period.load());
  sess->speed_timer = start_timer(sess->mgmt, period_ms, timer_speed_count, sess->sess_id);
}

void c2ms_sess_start_check_timer(c2ms_sess *sess) {
  check_inside(sess);
  if (sess->check_timer != nullptr) return;
  const auto period_ms = static_cast<uint32_t>(sess->mgmt->sess_check_time.load()) * 1000;
  sess->check_timer = start_timer(sess->mgmt, period_ms, timer_sess_check, sess->sess_id);
}

int c2ms_sess_recvspeed_count(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  if (sess->mgmt == nullptr) return -2;
  check_inside(sess);
  count_speed(sess);
  c2ms_sess_start_speed_timer(sess);
  return 0;
}

void c2ms::rearm_timers(c2ms_sess *sess) {
  check_inside(sess);
  if (sess->hook_registered != 0) {
    c2ms_sess_start_check_timer(sess);
    c2ms_sess_start_speed_timer(sess);
  }
  const adif::Guard lock(sess->list_lock);
  for (int i = 0; i < sk_num(sess->node_index); ++i) {
    rearm(static_cast<c2ms_node *>(sk_value(sess->node_index, i)));
  }
}
