// See ready.h.
#include "c2ms/player/ready.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include "c2ms.h"
#include "c2ms/core/wake.h"
#include "c2ms/player/gate.h"
#include "c2ms/player/reader.h"

namespace c2ms {

namespace {

bool would_return(c2ms_sess *sess) {
  const int32_t opened = sess->opened;
  if (opened == C2MS_OPENING) return false;
  c2ms_cache *const cache = sess->cache.load();
  if (opened != 0 || !is_live(sess) || cache == nullptr || (sess->cancel.load() & 1) != 0)
    return true;
  return c2ms_cache_poll(cache);
}

// The light's word is cleared after the descriptor: who lights it in between writes nothing, but
// has stored what there is to find before, and the look afterwards finds it.
void put_out(c2ms_sess *sess) {
  uint64_t count;
  while (read(sess->ready_fd, &count, sizeof count) < 0 && errno == EINTR) {
  }
  sess->ready_lit = false;
}

}  // namespace

void refresh_ready(c2ms_sess *sess) {
  if (!sess->ready_wanted) return;
  if (would_return(sess)) return light(sess);
  put_out(sess);
  if (would_return(sess)) light(sess);
}

void refresh_ready_soon(c2ms_sess *sess) {
  if (!sess->ready_wanted) return;
  const GateGuard gate(sess, one_try);
  if (gate) refresh_ready(sess);
}

}  // namespace c2ms

using namespace c2ms;

int c2ms_sess_ready_fd(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  const CallCount count(sess);
  if (!is_live(sess)) return C2MS_CLOSED;
  int fd = sess->ready_fd;
  if (fd < 0) {
    // The descriptor stays with the record: a late wake-up never writes to a stranger's.
    const int made = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (made < 0) return C2MS_NO_ENGINE;
    if (sess->ready_fd.compare_exchange_strong(fd, made)) {
      fd = made;
    } else {
      close(made);
    }
  }
  if (!sess->ready_wanted.exchange(true)) {
    put_out(sess);  // what the record's last session has left
    light(sess);    // a reader that is inside looks when it leaves
    refresh_ready_soon(sess);
  }
  return fd;
}
