// Lifetime and order of a session's work: the strand (one event of a session at a time), the count
// of player's calls inside a session, and diagnostic lines that wait until no lock is held.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

struct c2ms_sess;
struct c2ms_node;
struct c2ms_mgmt;

namespace c2ms {

/// The outermost, recursive lock of a session. Enter it with StrandGuard.
class Strand {
 public:
  void enter();
  void leave();
  bool outermost() const { return depth_ == 1; }  // by its holder
  /// Its holder has said something (diag) whose place among the session's lines matters.
  void spoke() { spoke_ = true; }
  /// Who leaves with something said takes a turn in the strand and, outside, delivers when all
  /// earlier turns have ended: the order of the lines is that of what happened.
  bool take_turn(uint32_t *turn);
  void await_turn(uint32_t turn) const;
  void end_turn();
  bool mine() const { return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

 private:
  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};
  int depth_ = 0;
  bool spoke_ = false;
  uint32_t next_turn_ = 0;
  std::atomic<uint32_t> turn_{0};  // who delivers
};

/// Holds a session's strand. Who leaves the outermost level dispatches what has become due, then,
/// with the strand left, delivers the diagnostic lines and lets the engine's hook run.
class StrandGuard {
 public:
  explicit StrandGuard(c2ms_sess *sess);
  ~StrandGuard();
  StrandGuard(const StrandGuard &) = delete;
  StrandGuard &operator=(const StrandGuard &) = delete;
  /// Lets others in while payload bytes are received; only at the outermost level. What the holder
  /// knew of nodes and sessions must be looked up again after resume(), which may be left out.
  void pause();
  void resume();

 private:
  c2ms_sess *const sess_;
  bool paused_ = false;
};

/// False once the session, or the whole library, is closing or closed: everything that waits ends.
bool is_live(const c2ms_sess *sess);

/// Counts a player's call into a session, and out: the record is not recycled in between.
class CallCount {
 public:
  explicit CallCount(c2ms_sess *sess);
  ~CallCount();
  CallCount(const CallCount &) = delete;
  CallCount &operator=(const CallCount &) = delete;

 private:
  c2ms_sess *const sess_;
};

/// Counts a player's call into a session; false when the session is closing or closed: the call
/// then touches nothing and returns -1005. Delivers the diagnostic lines of the call.
class CallGuard {
 public:
  explicit CallGuard(c2ms_sess *sess);
  ~CallGuard();
  CallGuard(const CallGuard &) = delete;
  CallGuard &operator=(const CallGuard &) = delete;
  explicit operator bool() const { return entered_; }

 private:
  const CallCount count_;
  const bool entered_;
};

/// True when a call must end that has found the session's `cancel` as `seen` when it began: cancel
/// is on, or has been since.
bool cancelled_since(const c2ms_sess *sess, uint32_t seen);
/// The same for the call that holds the read gate.
bool cancelled(const c2ms_sess *sess);

/// Marks the session "dispatch due"; the strand's next outermost leave carries it out. Any thread.
void mark_dispatch_due(c2ms_sess *sess);

/// Carries out a due dispatch now, unless this thread is inside the strand (its leave does it
/// then).
void dispatch_if_due(c2ms_sess *sess);

/// What an event carries: names and addresses, compared again inside the strand (the door).
struct node_ref {
  c2ms_node *node;
  uint32_t node_id;
  c2ms_sess *sess;
  uint32_t sess_id;
};

/// Looks a node up by its id in the registry; false when it is gone.
bool find_node(c2ms_mgmt *mgmt, uint32_t node_id, node_ref *out);

/// Inside the session's strand: true while session and node are still those that were looked up.
bool still_there(c2ms_mgmt *mgmt, const node_ref &ref);

/// The same for a session that was looked up by its id.
bool still_open(const c2ms_sess *sess, uint32_t sess_id);

}  // namespace c2ms
