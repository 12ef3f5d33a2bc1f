// See object.h.
#include "c2ms/session/object.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "adif/kalloc.h"
#include "adif/strutil.h"
#include "c2ms/core/context.h"
#include "c2ms/core/count.h"
#include "c2ms/core/identity.h"
#include "c2ms/core/pooled.h"
#include "c2ms/core/recorder.h"
#include "c2ms/core/registry.h"
#include "c2ms/core/servers.h"
#include "c2ms/core/time.h"
#include "c2ms/core/timer.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/node_record.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/report/report.h"
#include "c2ms/ring/cache.h"
#include "c2ms/ring/index.h"
#include "c2ms/ring/memory.h"
#include "c2ms/session/reporting.h"
#include "crypto/md5.h"

namespace {

using namespace c2ms;

bool make_stack(pointer_stack **stack) {
  if (*stack == nullptr) *stack = sk_new(nullptr);
  return *stack != nullptr;
}

bool make_once(c2ms_sess *sess) {
  if (sess->event == nullptr) sess->event = CreateEvent();
  if (sess->report_event == nullptr) sess->report_event = CreateEvent();
  const adif::Guard list(sess->list_lock);
  const adif::Guard units(sess->unit_lock);
  return sess->event != nullptr && sess->report_event != nullptr && make_stack(&sess->units) &&
         make_stack(&sess->node_index) && make_stack(&sess->node_list) &&
         make_stack(&sess->server_list);
}

void reset_opening(c2ms_sess *sess) {
  sess->opened = 0;
  sess->opener = open_job::none;
  sess->wishes = {};
  sess->open_pending = 0;
  sess->url_type = 0;
  sess->url[0] = '\0';
  sess->url_parsed = 0;
  sess->scheme = sess->path = sess->query = nullptr;
  sess->scheme_len = sess->path_len = sess->query_len = 0;
  std::memset(sess->host, 0, sizeof sess->host);
  sess->host_len = 0;
  sess->port = default_port;
  std::memset(sess->fid, 0, sizeof sess->fid);
  std::memset(sess->auth, 0, sizeof sess->auth);
  sess->stamp = sess->keyid = 0;
  sess->status = 0;
  sess->hook_registered = 0;
  sess->lookup_pending = false;
  sess->list_due = false;
  sess->entry_ip = 0;
  sess->entry_asks = 0;
  sess->open_time = 0;
  sess->close_time = 0;
}

void reset_reporting(c2ms_sess *sess) {
  sess->perf_state = sess->auth_state = 0;
  sess->perf_alive_count = sess->auth_alive_count = 0;
  sess->ready_wanted = false;
  sess->refusal = 0;
  sess->cancel = 0;
  sess->cancel_seen = 0;
}

void reset_media(c2ms_sess *sess) {
  std::memset(sess->media_name, 0, sizeof sess->media_name);
  sess->media_size = 0;
  sess->media_type = 0;
  std::memset(sess->idx_fid, 0, sizeof sess->idx_fid);
  sess->idx_len = 0;
  sess->desc_count = 0;
  sess->seek_num = 0;
  sess->cache_limit = 0;
  sess->weight = usual_weight;
  sess->yields = false;
}

void reset_counters(c2ms_sess *sess) {
  {
    const adif::Guard lock(sess->counter_lock);
    sess->ready_num = sess->usable_num = sess->has_active = 0;
    sess->download_num = 0;
    sess->download_at_us = 0;
  }
  sess->active_at_us = 0;
  sess->reopened_at_us = 0;
  sess->answers = sess->answers_seen = 0;
  sess->fruitless_at_us = 0;
  sess->dispatch_due = false;
  sess->total_bytes = sess->recv_time = sess->window_bytes = 0;
  {
    const adif::Guard lock(sess->speed_lock);
    sess->window_at_us = 0;
    sess->realtime_speed = 0;
  }
  sess->next_pdu_id = 1;
}

c2ms_node *any_node(c2ms_sess *sess) {
  const adif::Guard lock(sess->list_lock);
  return static_cast<c2ms_node *>(sk_value(sess->node_index, 0));
}

void release_cache(c2ms_sess *sess) {
  c2ms_cache *const cache = sess->cache.exchange(nullptr);
  c2ms_cache_clean(cache);
  keep_memory(sess, 0);
}

void end_nodes(c2ms_sess *sess, int (*end_node)(c2ms_node *)) {
  while (c2ms_node *node = any_node(sess)) end_node(node);
  sess->entry_node = nullptr;
}

// Everything that an open session holds, but its record.
void release_contents(c2ms_sess *sess, int (*end_node)(c2ms_node *)) {
  stop_timer(&sess->speed_timer);
  stop_timer(&sess->check_timer);
  stop_timer(&sess->watch_timer);
  RemoveHookOf(sess->probe, sess);
  sess->hook_registered = 0;
  sess->open_pending = 0;
  sess->url_type = 0;
  end_nodes(sess, end_node);
  c2ms_sess_server_clear(sess);
  c2ms_sess_unit_clear(sess);
  c2ms_sess_idx_release(sess);
  trace_stop(sess);
  release_cache(sess);
}

bool is_registered(c2ms_sess *sess) {
  return c2ms_sess_get(sess->mgmt, sess->sess_id) == sess;
}

bool unregister(c2ms_sess *sess) {
  return sess->mgmt != nullptr && c2ms_sess_del(sess->mgmt, sess) != nullptr;
}

void free_stacks(c2ms_sess *sess) {
  const adif::Guard list(sess->list_lock);
  const adif::Guard units(sess->unit_lock);
  for (pointer_stack **stack :
       {&sess->units, &sess->node_index, &sess->node_list, &sess->server_list}) {
    sk_free(*stack);
    *stack = nullptr;
  }
}

// An id of printable characters is its own text; of any other the first ten bytes are shown.
void set_hid_text(c2ms_sess *sess, const uint8_t (&hid)[20]) {
  std::memset(sess->hid_text, 0, sizeof sess->hid_text);
  const bool printable = std::all_of(hid, hid + 20, [](uint8_t c) { return c >= ' ' && c < 127; });
  if (printable) {
    std::memcpy(sess->hid_text, hid, sizeof hid);
  } else {
    bin_to_ascii(hid, 10, sess->hid_text, nullptr);
  }
}

c2ms_sess *take_record(c2ms_mgmt *mgmt) {
  // The pool hands a record out whatever its init function has said: it is asked here.
  c2ms_sess *const sess = fetch_record<c2ms_sess>(mgmt->sess_pool, [](c2ms_sess *) { return 0; });
  if (sess == nullptr || c2ms_sess_init(sess) == 0) return sess;
  return_record(mgmt->sess_pool, sess, c2ms_sess_free);
  return nullptr;
}

// False without memory for its place in the registry.
bool bring_to_life(c2ms_mgmt *mgmt, c2ms_sess *sess) {
  const Turn strand(sess);
  sess->mgmt = mgmt;
  sess->probe = mgmt->probe;
  sess->sess_id = c2ms_sessid(mgmt);
  const identity who = current_identity(mgmt);
  set_hid_text(sess, who.hid);
  uint8_t digest[16];
  c2ms_sess_random(sess, digest);
  std::memcpy(sess->token, digest, sizeof sess->token);
  sess->life = c2ms_life::live;
  if (c2ms_sess_add(mgmt, sess) == 0) return true;
  sess->life = c2ms_life::pooled;
  return false;
}

}  // namespace

c2ms_sess *c2ms_sess_fetch(c2ms_mgmt *mgmt) {
  if (mgmt == nullptr) return nullptr;
  c2ms_sess *const sess = take_record(mgmt);
  if (sess == nullptr || bring_to_life(mgmt, sess)) return sess;
  return_record(mgmt->sess_pool, sess, c2ms_sess_free);
  return nullptr;
}

int c2ms_sess_init(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  construct_once(sess);
  // A late event may look at the record: it finds the strand taken, then a session that is not its
  // own.
  const Turn strand(sess);
  if (!make_once(sess)) return -2;
  reset_opening(sess);
  reset_reporting(sess);
  reset_media(sess);
  reset_counters(sess);
  reset_stats(sess);
  return 0;
}

int c2ms_sess_recycle(c2ms_sess *sess) {
  return recycle_session(sess, last_report::here);
}

namespace {

int unregister_and_return(c2ms_sess *sess) {
  c2ms_mgmt *const mgmt = sess->mgmt;
  {
    const Turn strand(sess);
    if (!unregister(sess)) return 0;
    sess->life = c2ms_life::pooled;
  }
  return_record(mgmt->sess_pool, sess, c2ms_sess_free);
  return 0;
}

// False when no thread can be had.
bool report_elsewhere(c2ms_sess *sess, report_facts facts) {
  c2ms_mgmt *const mgmt = sess->mgmt;
  facts.untold = &mgmt->untold;
  mgmt->farewells.fetch_add(1);
  const auto job = [sess, facts, mgmt] {
    report_closing(sess, facts);
    unregister_and_return(sess);
    mgmt->farewells.fetch_sub(1);
  };
  if (mgmt->closers.post(job)) return true;
  mgmt->farewells.fetch_sub(1);
  return false;
}

}  // namespace

int c2ms::recycle_session(c2ms_sess *sess, last_report report) {
  if (sess == nullptr) return -1;
  report_facts facts;
  {
    const Turn strand(sess);
    if (!is_registered(sess)) return 0;
    sess->life = c2ms_life::closing;  // no check begins after this
    sess->close_time = now_us() / 1'000'000;
    facts = report_facts_of(sess);
    release_contents(sess, c2ms_node_recycle);
  }
  if (report == last_report::elsewhere && report_elsewhere(sess, facts)) return 0;
  if (report == last_report::here || report == last_report::elsewhere) report_closing(sess, facts);
  if (report == last_report::handed_over) report_failed_open(facts);
  return unregister_and_return(sess);
}

int c2ms_sess_free(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  if (sess->life != c2ms_life::pooled && unregister(sess)) release_contents(sess, c2ms_node_free);
  free_stacks(sess);
  sk_free(sess->cache_record.packs);
  DestroyEvent(sess->cache_record.event);
  DestroyEvent(sess->event);
  DestroyEvent(sess->report_event);
  // (In a record that was never used it is 0.)
  if (sess->mark.constructed != 0 && sess->ready_fd >= 0) close(sess->ready_fd);
  sess->~c2ms_sess();
  kfree_dbg(sess);
  return 0;
}

void c2ms_sess_random(c2ms_sess *sess, uint8_t *out) {
  struct {
    char address[24];
    int64_t seconds, microseconds;
    uint8_t hid[21];
    uint32_t local_ip;
  } seed;
  std::memset(&seed, 0, sizeof seed);  // the padding is digested too
  std::snprintf(seed.address, sizeof seed.address, "%p", static_cast<void *>(&seed));
  const int64_t now = now_us();
  seed.seconds = now / 1'000'000;
  seed.microseconds = now % 1'000'000;
  if (sess != nullptr && sess->mgmt != nullptr) {
    const identity who = known_identity(sess->mgmt);
    std::memcpy(seed.hid, who.hid, sizeof who.hid);
    seed.local_ip = who.address;
  }
  Md5Val(&seed, sizeof seed, out);
}

void c2ms::end_nodes(c2ms_sess *sess) {
  check_inside(sess);
  ::end_nodes(sess, c2ms_node_recycle);
}
