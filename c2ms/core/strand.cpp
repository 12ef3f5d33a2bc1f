#include "c2ms/core/strand.h"

#include <utility>

#include "adif/check.h"
#include "c2ms/core/diag.h"
#include "c2ms/core/records.h"
#include "c2ms/session/object.h"
#include "c2ms/fetch/queue.h"

namespace c2ms {

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

void Strand::enter() {
  if (mine()) {
    ++depth_;
    return;
  }
  adif::rank_enter(rank_strand);
  mutex_.lock();
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  depth_ = 1;
}

void Strand::leave() {
  if (--depth_ > 0) return;
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  mutex_.unlock();
  adif::rank_leave(rank_strand);
}

bool Strand::take_turn(uint32_t *turn) {
  if (!std::exchange(spoke_, false)) return false;
  *turn = next_turn_++;
  return true;
}

void Strand::await_turn(uint32_t turn) const {
  for (uint32_t now = turn_.load(); now != turn; now = turn_.load()) turn_.wait(now);
}

void Strand::end_turn() {
  turn_.fetch_add(1);
  turn_.notify_all();
}

StrandGuard::StrandGuard(c2ms_sess *sess) : sess_(sess) {
  sess_->strand.enter();
}

StrandGuard::~StrandGuard() {
  if (paused_) {
    dispatch_if_due(sess_);
    return;
  }
  if (!sess_->strand.outermost()) {
    sess_->strand.leave();
    return;
  }
  const bool dispatched = run_due_dispatches(sess_);
  rac_core *const core = sess_->probe;
  uint32_t turn = 0;
  const bool ordered = sess_->strand.take_turn(&turn);
  sess_->strand.leave();
  if (ordered) sess_->strand.await_turn(turn);
  diag_deliver();
  if (ordered) sess_->strand.end_turn();
  if (dispatched) drive_hook(core);
}

void StrandGuard::pause() {
  adif::check(sess_->strand.outermost(), "sess->strand.outermost()", "c2ms/c2ms_strand");
  paused_ = true;
  sess_->strand.leave();
}

void StrandGuard::resume() {
  sess_->strand.enter();
  paused_ = false;
}

CallCount::CallCount(c2ms_sess *sess) : sess_(sess) {
  sess_->calls.fetch_add(1);
}

CallCount::~CallCount() {
  sess_->calls.fetch_sub(1);
}

bool is_live(const c2ms_sess *sess) {
  return sess->life.load() == c2ms_life::live && !sess->mgmt->closing.load();
}

CallGuard::CallGuard(c2ms_sess *sess) : count_(sess), entered_(is_live(sess)) {}

CallGuard::~CallGuard() {
  diag_deliver();
}

bool cancelled_since(const c2ms_sess *sess, uint32_t seen) {
  const uint32_t now = sess->cancel.load();
  return (now & 1) != 0 || now != seen;
}

bool cancelled(const c2ms_sess *sess) {
  return cancelled_since(sess, sess->cancel_seen);
}

void mark_dispatch_due(c2ms_sess *sess) {
  sess->dispatch_due.store(true);
}

void dispatch_if_due(c2ms_sess *sess) {
  if (!sess->dispatch_due.load() || sess->strand.mine()) return;
  const StrandGuard strand(sess);
}

bool still_open(const c2ms_sess *sess, uint32_t sess_id) {
  return sess->sess_id.load() == sess_id && sess->life.load() == c2ms_life::live;
}

bool still_there(c2ms_mgmt *mgmt, const node_ref &ref) {
  return still_open(ref.sess, ref.sess_id) && c2ms_node_get(mgmt, ref.node_id) == ref.node;
}

}  // namespace c2ms
