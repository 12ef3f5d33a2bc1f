// Waking a base by one byte through its socket pair. See rac_wake.h.
#include "eprobe/rac_wake.h"

#include <sys/socket.h>

#include <cerrno>

constinit thread_local rac_base *rac_this_base = nullptr;

rac_base *rac_next_base(rac_core *core, std::atomic<int32_t> *cursor) {
  const auto n = static_cast<int32_t>(core->nbases);
  int32_t last = cursor->load(std::memory_order_relaxed);
  while (!cursor->compare_exchange_weak(last, (last + 1) % n, std::memory_order_relaxed)) {
  }
  return &core->bases[static_cast<uint32_t>((last + 1) % n)];
}

int rac_base_notify(rac_base *base) {
  if (base->notify_send_fd == -1) return -1;
  if (base == rac_this_base) return 0;
  // Pairs with the exchange in rac_process_base_event (W1): who finds the flag set leaves the byte
  // out, and the base that clears it afterwards sees what was queued before this.
  if (base->wake_pending.exchange(true, std::memory_order_acq_rel)) return 0;
  const char byte = 0;
  for (;;) {
    // EAGAIN: the socket is full of bytes that wake the base already.
    if (send(base->notify_send_fd, &byte, 1, MSG_NOSIGNAL) == 1 || errno == EAGAIN) return 0;
    if (errno != EINTR) break;
  }
  base->wake_pending.store(false, std::memory_order_release);
  base->core->wake_owed.store(true, std::memory_order_release);  // W2: send_owed_wakeups
  return -1;
}
