// See opening.h.
#include "c2ms/session/opening.h"

#include <strings.h>

#include <cstring>

#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/diag.h"
#include "c2ms/core/time.h"
#include "c2ms/core/wake.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/session/entry.h"
#include "c2ms/session/object.h"
#include "c2ms/session/timers.h"
#include "c2ms/session/url.h"

namespace c2ms {

namespace {

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

int32_t start_exchange(c2ms_sess *sess, uint32_t address) {
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

// 0 while the open may go on.
int32_t what_ends(c2ms_sess *sess) {
  if (!is_live(sess)) return C2MS_CLOSED;
  const int32_t opened = sess->opened;
  return opened != C2MS_OPENING ? opened : 0;  // cancelled
}

// Waits for the first description. 0, or what ends the open.
int32_t wait_described(c2ms_sess *sess, open_question ask) {
  int timeouts = 0;
  auto tick = steady::now() + std::chrono::seconds(1);
  for (;;) {
    const uint32_t seen = sess->wake_count.load();
    if (const int32_t why = what_ends(sess); why != 0) return why;
    if (sess->desc_count != 0) return 0;
    if (const int32_t status = sess->status; status != 0) return status;
    if (!has_nodes(sess)) return C2MS_OPEN_TIMEOUT;  // nobody is left who could describe the media
    const auto changed = [&] { return sess->wake_count.load() != seen; };
    if (WaitEventUntil(sess->event, tick, changed)) continue;
    tick += std::chrono::seconds(1);
    if (ask != nullptr && ask() < 0) return C2MS_UNAUTHORIZED;
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

int32_t open_on_this_thread(c2ms_sess *sess, open_question ask) {
  // 1. The entry server's address.
  const uint32_t address = resolve_entry(sess);
  if (const int32_t why = what_ends(sess); why != 0) return why;
  if (address == 0) return C2MS_ENTRY_UNAVAILABLE;
  // 2. The list, connections to the servers that it names, and their descriptions.
  if (const int32_t bad = start_exchange(sess, address); bad != 0) return bad;
  diag_deliver();
  if (const int32_t bad = wait_described(sess, ask); bad != 0) return bad;
  // 3. The checks of a play, then cache, range and index for those who want them prepared.
  start_playing(sess);
  return sess->wishes.prepare != nullptr ? sess->wishes.prepare(sess) : 0;
}

// Stores what the open has come to, unless somebody has ended it meanwhile. What counts.
int32_t settle(c2ms_sess *sess, int32_t result) {
  int32_t opening = C2MS_OPENING;
  if (!sess->opened.compare_exchange_strong(opening, result)) result = opening;
  if (result != 0) {
    sess->status = result;
    const Turn strand(sess);
    end_nodes(sess);
  }
  wake_opener(sess);
  return result;
}

void open_elsewhere(c2ms_sess *sess) {
  run_open(sess, nullptr);
  diag_deliver();
  auto expected = open_job::running;
  if (!sess->opener.compare_exchange_strong(expected, open_job::none)) drop_failed(sess);
}

c2ms_sess *refuse(int32_t *err, int32_t why) {
  *err = why;
  return nullptr;
}

}  // namespace

c2ms_sess *begin_open(c2ms_mgmt *mgmt, const char *url, int32_t *err) {
  if (mgmt == nullptr) return refuse(err, C2MS_INVALID_PARAMETER);
  if (url == nullptr || std::strlen(url) < 8) return refuse(err, C2MS_INVALID_URL);
  if (mgmt->closing) return refuse(err, C2MS_CLOSED);
  c2ms_sess *const sess = c2ms_sess_fetch(mgmt);
  if (sess == nullptr) return refuse(err, C2MS_NO_MEMORY);
  sess->opened = C2MS_OPENING;
  *err = take_url(sess, url);
  if (*err == 0) return sess;
  sess->life = c2ms_life::closing;
  recycle_session(sess, last_report::none);
  return nullptr;
}

int32_t run_open(c2ms_sess *sess, open_question ask) {
  return settle(sess, open_on_this_thread(sess, ask));
}

bool run_open_elsewhere(c2ms_sess *sess) {
  sess->opener = open_job::running;
  if (sess->mgmt->openers.post([sess] { open_elsewhere(sess); })) return true;
  sess->opener = open_job::none;
  return false;
}

void drop_failed(c2ms_sess *sess) {
  sess->life = c2ms_life::closing;
  wait_idle(sess);
  recycle_session(sess, last_report::handed_over);
}

bool leave_to_opener(c2ms_sess *sess) {
  auto running = open_job::running;
  return sess->opener.compare_exchange_strong(running, open_job::abandoned);
}

}  // namespace c2ms

using namespace c2ms;

c2ms_sess *c2ms_sess_open(c2ms_mgmt *mgmt, const char *url, int32_t *err) {
  return c2ms_sess_open1(mgmt, url, err, nullptr);
}

c2ms_sess *c2ms_sess_open1(c2ms_mgmt *mgmt, const char *url, int32_t *err, int32_t (*cb)(void)) {
  int32_t ignored;
  int32_t &error = err != nullptr ? *err : ignored;
  const ContextCall call(mgmt);
  c2ms_sess *const sess = begin_open(mgmt, url, &error);
  if (sess == nullptr) return nullptr;
  error = run_open(sess, cb);
  if (error == 0) return sess;
  drop_failed(sess);
  return nullptr;
}
