// Waking who waits: the opener, the reader, the closer; and the status that they find.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Records what a server's answer means for the session: 10, 20, 30, 40 and 400 are the codes -1007
/// to -1010 and -1004, anything else is 0. Wakes opener and reader. 0, -1 for NULL. Any thread.
int c2ms_sess_set_status(c2ms_sess *sess, int32_t code);

/// Keeps the agent's refusal (20, 30 or 40, as above) until the session is closed: every read and
/// receive returns it, a waiting one at once. Any thread while the session can't be recycled.
void c2ms_sess_refuse(c2ms_sess *sess, int32_t code);

/// Wakes the waiting reader, if any.
void c2ms_cache_wake(c2ms_cache *cache);

namespace c2ms {

/// Makes the session's descriptor for poll loops readable, if there is one and it is not. Any
/// thread.
void light(c2ms_sess *sess);
/// Ends an open that is under way with C2MS_CANCELLED; nothing for any other session.
void cancel_open(c2ms_sess *sess);
/// Lets the waiting opener look again.
void wake_opener(c2ms_sess *sess);
/// Wakes everybody who waits in a call on the session.
void wake_waiters(c2ms_sess *sess);
/// Waits until no player's call is inside a closing session. Not inside the strand.
void wait_idle(c2ms_sess *sess);

/// In which order readers are woken while a thread handles one event of the engine. The thread that
/// receives a pack also sends its node's next request; a reader that it wakes may take its
/// processor from it at once. So
///   - the reader of a complete pack is woken after the event, when the next request is out
///     (docs/performance.md: at 256 KiB .74 of a bare client before, .93 after),
///   - a reader in a hurry (the first bytes after a seek) is woken at once, and after the event the
///     thread makes way for it: of the seeks one in a hundred took 1.7 ms without this, 0.3 with it.
///
/// The event's handler makes one on its stack and calls finish() when it holds no lock.
class WakeOrder {
 public:
  WakeOrder();
  ~WakeOrder();
  WakeOrder(const WakeOrder &) = delete;
  WakeOrder &operator=(const WakeOrder &) = delete;

  /// The order of the event that this thread handles; NULL outside of one.
  static WakeOrder *current();

  /// Wakes the reader of a complete pack later, in finish(). (A cache's memory stays until the
  /// context is cleaned: at worst nobody waits there any more.)
  void wake_last(c2ms_cache *cache) { last_ = cache; }
  /// A reader in a hurry has been woken.
  void make_way() { make_way_ = true; }
  void finish();

 private:
  c2ms_cache *last_ = nullptr;
  bool make_way_ = false;
};

}  // namespace c2ms
