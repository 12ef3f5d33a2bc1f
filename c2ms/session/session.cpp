// Opening, reopening and closing a session, and the texts of its codes. c2ms.h describes the calls.
#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/diag.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"
#include "c2ms/core/wake.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/session/entry.h"
#include "c2ms/session/object.h"
#include "c2ms/session/timers.h"
#include "c2ms/session/url.h"

#include <arpa/inet.h>
#include <strings.h>

#include <cstring>

#include "adif/tsock.h"

namespace {

using namespace c2ms;

// Opens and closes under way keep c2ms_mgmt_clean from going on.
class LifeGuard {
 public:
  explicit LifeGuard(c2ms_mgmt *mgmt) : mgmt_(mgmt) { mgmt_->calls.fetch_add(1); }
  ~LifeGuard() {
    diag_deliver();
    mgmt_->calls.fetch_sub(1);
  }
  LifeGuard(const LifeGuard &) = delete;
  LifeGuard &operator=(const LifeGuard &) = delete;

 private:
  c2ms_mgmt *const mgmt_;
};

bool set_scheme(c2ms_sess *sess) {
  constexpr int32_t scheme_length = 7;
  if (sess->scheme_len != scheme_length) return false;
  if (strncasecmp(sess->scheme, "kesp://", scheme_length) == 0) sess->url_type = 1;
  if (strncasecmp(sess->scheme, "kedp://", scheme_length) == 0) sess->url_type = 2;
  return sess->url_type != 0;
}

int32_t take_url(c2ms_sess *sess, const char *url) {
  const Turn strand(sess);
  std::strncpy(sess->url, url, sizeof sess->url - 1);
  sess->url[sizeof sess->url - 1] = '\0';
  sess->url_parsed = 0;
  if (c2ms_sess_url_parse(sess) < 0) return C2MS_INVALID_URL;
  c2ms_sess_para_parse(sess);
  return set_scheme(sess) ? 0 : C2MS_UNSUPPORTED_SCHEME;
}

int32_t start_opening(c2ms_sess *sess, uint32_t address) {
  const Turn strand(sess);
  const int64_t now = now_us();
  sess->open_pending = 1;
  sess->open_time = now / 1'000'000;
  {
    const adif::Guard lock(sess->speed_lock);
    sess->window_at_us = now;
  }
  sess->active_at_us = now;
  sess->reopened_at_us = now;
  if (start_entry_exchange(sess, address) != 0) return C2MS_ENTRY_UNAVAILABLE;
  open_known(sess);
  return 0;
}

bool has_nodes(c2ms_sess *sess) {
  const adif::Guard lock(sess->list_lock);
  return sk_num(sess->node_index) > 0;
}

// Waits for the first description. 0, or what ends the open.
int32_t wait_described(c2ms_sess *sess, int32_t (*cb)(void)) {
  int timeouts = 0;
  auto tick = steady::now() + std::chrono::seconds(1);
  for (;;) {
    const uint32_t seen = sess->wake_count.load();
    if (sess->desc_count != 0) return 0;
    if (!is_live(sess)) return C2MS_CLOSED;
    if (const int32_t status = sess->status; status != 0) return status;
    if (!has_nodes(sess)) return C2MS_OPEN_TIMEOUT;  // nobody is left who could describe the media
    const auto changed = [&] { return sess->wake_count.load() != seen; };
    if (WaitEventUntil(sess->event, tick, changed)) continue;
    tick += std::chrono::seconds(1);
    if (cb != nullptr && cb() < 0) return C2MS_UNAUTHORIZED;
    const Turn strand(sess);
    rearm_timers(sess);
    if (++timeouts > sess->mgmt->patience.open_s) return C2MS_OPEN_TIMEOUT;
  }
}

int hook_check(void *sess, int) {
  return c2ms_sess_dispatch_check(static_cast<c2ms_sess *>(sess));
}

int hook_dispatch(void *sess, int) {
  return c2ms_sess_dispatch(static_cast<c2ms_sess *>(sess));
}

void start_playing(c2ms_sess *sess) {
  const Turn strand(sess);
  sess->open_pending = 0;
  if (sess->hook_registered == 0) {
    RegisterHook(sess->probe, hook_check, sess, hook_dispatch, sess);
    sess->hook_registered = 1;
  }
  c2ms_sess_start_check_timer(sess);
  c2ms_sess_start_speed_timer(sess);
}

int32_t open_in(c2ms_sess *sess, const char *url, int32_t (*cb)(void)) {
  if (const int32_t bad = take_url(sess, url); bad != 0) return bad;
  const uint32_t address = resolve_entry(sess);
  if (address == 0) return C2MS_ENTRY_UNAVAILABLE;
  if (const int32_t bad = start_opening(sess, address); bad != 0) return bad;
  diag_deliver();
  const int32_t result = wait_described(sess, cb);
  if (result == 0) {
    start_playing(sess);
  } else {
    sess->status = result;
  }
  return result;
}

}  // namespace

c2ms_sess *c2ms_sess_open(c2ms_mgmt *mgmt, const char *url, int32_t *err) {
  return c2ms_sess_open1(mgmt, url, err, nullptr);
}

c2ms_sess *c2ms_sess_open1(c2ms_mgmt *mgmt, const char *url, int32_t *err, int32_t (*cb)(void)) {
  int32_t ignored;
  int32_t &error = err != nullptr ? *err : ignored;
  error = 0;
  if (mgmt == nullptr) {
    error = C2MS_INVALID_PARAMETER;
    return nullptr;
  }
  if (url == nullptr || std::strlen(url) < 8) {
    error = C2MS_INVALID_URL;
    return nullptr;
  }
  const LifeGuard guard(mgmt);
  if (mgmt->closing) {
    error = C2MS_CLOSED;
    return nullptr;
  }
  c2ms_sess *const sess = c2ms_sess_fetch(mgmt);
  if (sess == nullptr) {
    error = C2MS_NO_MEMORY;
    return nullptr;
  }
  error = open_in(sess, url, cb);
  if (error == 0) return sess;
  const bool bad_url = sess->url_type == 0;
  sess->life = c2ms_life::closing;
  recycle_session(sess, bad_url ? last_report::none : last_report::handed_over);
  return nullptr;
}

int c2ms_sess_reopen(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  const uint32_t address = resolve_entry(sess);
  const Turn strand(sess);
  rearm_timers(sess);
  return start_entry_exchange(sess, address);
}

int c2ms_sess_close(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  const LifeGuard guard(sess->mgmt);
  c2ms_life live = c2ms_life::live;
  if (!sess->life.compare_exchange_strong(live, c2ms_life::closing)) return 0;
  wait_idle(sess);
  return c2ms_sess_recycle(sess);
}
