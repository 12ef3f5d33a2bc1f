// See wake.h.
#include "c2ms/core/wake.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "c2ms.h"

using namespace c2ms;

namespace {

constinit thread_local WakeOrder *handled = nullptr;

int32_t status_of(int32_t code) {
  switch (code) {
    case 10:
      return C2MS_MEDIA_NOT_EXIST;
    case 20:
      return C2MS_UNAUTHORIZED;
    case 30:
      return C2MS_AUTH_FAILED;
    case 40:
      return C2MS_IN_DEBT;
    case 400:
      return C2MS_ENTRY_UNAVAILABLE;
    default:
      return 0;
  }
}

}  // namespace

int c2ms_sess_set_status(c2ms_sess *sess, int32_t code) {
  if (sess == nullptr) return -1;
  const int32_t status = status_of(code);
  // A plain success on top of a success is nobody's news, and there is one for each transfer.
  if (sess->status.exchange(status) == 0 && status == 0) return 0;
  wake_opener(sess);
  if (status != 0) c2ms_cache_wake(sess->cache.load());
  return 0;
}

void c2ms_sess_refuse(c2ms_sess *sess, int32_t code) {
  sess->refusal = status_of(code);
  c2ms_sess_set_status(sess, code);
}

void c2ms_cache_wake(c2ms_cache *cache) {
  if (cache == nullptr) return;
  cache->wake_count.fetch_add(1);
  adif::signal_lasting_event(cache->event, 1);
  light(cache->session);
}

void c2ms::light(c2ms_sess *sess) {
  if (!sess->ready_wanted || sess->opened == C2MS_OPENING || sess->ready_lit.exchange(true)) return;
  const uint64_t one = 1;
  // (A counter that was read a moment ago has room.)
  while (write(sess->ready_fd, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void c2ms::cancel_open(c2ms_sess *sess) {
  int32_t opening = C2MS_OPENING;
  if (sess->opened.compare_exchange_strong(opening, C2MS_CANCELLED)) wake_opener(sess);
}

void c2ms::wake_opener(c2ms_sess *sess) {
  sess->wake_count.fetch_add(1);
  SetEventAll(sess->event, 100);
  light(sess);
}

void c2ms::wake_waiters(c2ms_sess *sess) {
  wake_opener(sess);
  c2ms_cache_wake(sess->cache.load());
}

void c2ms::wait_idle(c2ms_sess *sess) {
  // Callers that were woken leave within microseconds; nobody signals that, so that the last one
  // touches nothing of the session after it has counted itself out.
  while (sess->calls.load() > 0) {
    wake_waiters(sess);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

c2ms::WakeOrder::WakeOrder() {
  handled = this;
}

c2ms::WakeOrder::~WakeOrder() {
  handled = nullptr;
}

WakeOrder *c2ms::WakeOrder::current() {
  return handled;
}

void c2ms::WakeOrder::finish() {
  c2ms_cache_wake(std::exchange(last_, nullptr));
  if (std::exchange(make_way_, false)) sched_yield();
}
