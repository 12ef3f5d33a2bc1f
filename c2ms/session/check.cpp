// See check.h.
#include "c2ms/session/check.h"

#include <algorithm>

#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/node_list.h"
#include "c2ms/fetch/seek.h"
#include "c2ms/ring/range.h"
#include "c2ms/session/entry.h"
#include "c2ms/session/reporting.h"
#include "c2ms/session/timers.h"

namespace {

using namespace c2ms;

// One more connection to the best server, while fewer than four are usable.
void grow(c2ms_sess *sess) {
  const usable_nodes usable = find_usable(sess);
  const int all = c2ms_sess_node_num(sess);
  if (usable.best == nullptr || all >= wanted_media_nodes) return;
  const c2ms_node *const best = usable.best;
  c2ms_node_open(sess, best->host, best->ip, best->port, node_serves_media, 0, best->level);
}

// Requests wait for an answer or for a node.
bool requests_out(c2ms_sess *sess) {
  const adif::Guard lock(sess->counter_lock);
  return sess->download_num > 0 || sess->unit_num > 0;
}

// Servers that connect, describe and then answer nothing are usable at every look, and no better
// than none.
void note_answers(c2ms_sess *sess) {
  const bool fruitless = requests_out(sess) && sess->answers == sess->answers_seen;
  sess->answers_seen = sess->answers;
  if (!fruitless) {
    sess->fruitless_at_us = 0;
  } else if (sess->fruitless_at_us == 0) {
    sess->fruitless_at_us = now_us();
  }
}

bool servers_lost(c2ms_sess *sess) {
  if (sess->desc_count == 0) return false;
  if (c2ms_sess_node_num(sess) < 1) return true;
  const auto for_long = [&](int64_t since) {
    return now_us() - std::max(since, sess->reopened_at_us) > sess->mgmt->patience.reopen_after_us;
  };
  if (sess->has_active == 0) return for_long(sess->active_at_us);
  return sess->fruitless_at_us != 0 && for_long(sess->fruitless_at_us);
}

}  // namespace

int c2ms_sess_check(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  if (sess->mgmt == nullptr) return -2;
  check_inside(sess);
  report_check(sess);
  grow(sess);
  note_answers(sess);
  if (servers_lost(sess)) reopen_later(sess);
  if (sess->usable_num > 0 && sess->desc_count > 0) {
    c2ms_cache *const cache = sess->cache.load();
    if (cache != nullptr) c2ms_cache_note_idle(cache, 0);
    c2ms_cache_download_all(cache);
  }
  c2ms_sess_start_check_timer(sess);
  return 0;
}
