// See dispatch.h.
#include "c2ms/fetch/dispatch.h"

#include "c2ms/core/diag.h"
#include "c2ms/core/records.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/node_list.h"
#include "c2ms/fetch/watch.h"
#include "c2ms/ring/range.h"

using namespace c2ms;

namespace {

// A dispatch that makes no headway must not hold the strand: the rest is done at its next leave.
constexpr int max_dispatch_rounds = 16;

// The hook's dispatch must not drive the hook again.
thread_local bool driving_hook = false;

bool run_due_dispatches(c2ms_sess *sess) {
  bool any = false;
  for (int round = 0; round < max_dispatch_rounds; ++round) {
    if (!sess->dispatch_due.exchange(false)) break;
    if (sess->life.load() != c2ms_life::live) break;
    if (c2ms_sess_dispatch_check(sess) > 0) {
      c2ms_sess_dispatch(sess);
      any = true;
    }
  }
  return any;
}

void drive_hook(rac_core *core) {
  if (driving_hook || core == nullptr) return;
  driving_hook = true;
  DrivePump(core);
  driving_hook = false;
}

}  // namespace

c2ms::Turn::~Turn() NO_THREAD_SAFETY_ANALYSIS {
  c2ms_sess *const sess = session();
  if (!inside()) {
    dispatch_if_due(sess);
    return;
  }
  if (!sess->strand.outermost()) return;
  const bool dispatched = run_due_dispatches(sess);
  rac_core *const core = sess->probe;
  uint32_t number = 0;
  const bool ordered = sess->strand.take_number(&number);
  let_go();
  if (ordered) sess->strand.await_number(number);
  diag_deliver();
  if (ordered) sess->strand.delivered();
  if (dispatched) drive_hook(core);
}

void c2ms::dispatch_if_due(c2ms_sess *sess) {
  if (!sess->dispatch_due.load() || sess->strand.mine()) return;
  const Turn turn(sess);
}

int c2ms_sess_dispatch_check(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  c2ms_cache *const cache = sess->cache.load();
  if (sess->unit_num.load() < 1 && c2ms_cache_get_idle_pack(cache) == nullptr) return -100;
  const int ready = sess->ready_num.load();
  return ready < 1 ? -200 : ready;
}

int c2ms_sess_dispatch(c2ms_sess *sess) {
  if (sess == nullptr) return 0;
  const Turn turn(sess);
  if (sess->life.load() != c2ms_life::live) return 0;
  c2ms_sess_node_sort(sess);
  const chosen_nodes ready =
      choose_nodes(sess, [](const c2ms_node *node) { return node->state == C2MS_NODE_READY; });
  // Nobody recycles a node while we are in the strand, except a start that fails, and then its own.
  for (size_t i = 0; i < ready.count; ++i) c2ms_node_download_start_dbg(ready.nodes[i]);
  if (sess->yields) {
    start_watch(sess);
  } else {
    watch_soon(sess);
  }
  return 0;
}
