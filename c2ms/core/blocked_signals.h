// Threads of the library leave signals to the player: they are made while all signals are blocked,
// which they inherit.
#pragma once

#include <pthread.h>
#include <signal.h>

namespace c2ms {

/// Blocks all signals of this thread as long as it lives.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  BlockedSignals(const BlockedSignals &) = delete;
  BlockedSignals &operator=(const BlockedSignals &) = delete;

 private:
  sigset_t before_;
};

}  // namespace c2ms
