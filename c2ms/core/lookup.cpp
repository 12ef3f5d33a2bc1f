// See lookup.h.
#include "c2ms/core/lookup.h"

#include <arpa/inet.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <new>

#include "adif/sync.h"
#include "adif/tsock.h"
#include "c2ms/core/blocked_signals.h"

namespace c2ms {

namespace {

constexpr size_t stack_bytes = 512 * 1024;

bool needs_no_thread(const char *host) {
  in_addr address{};
  return host == nullptr || *host == '\0' || inet_pton(AF_INET, host, &address) == 1;
}

bool start_detached(void *(*run)(void *), void *argument) {
  const BlockedSignals blocked;
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, stack_bytes);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, run, argument) == 0;
  pthread_attr_destroy(&attributes);
  return started;
}

}  // namespace

// Who lets go last frees it: the look-up's thread, or who has asked.
struct Lookup::Shared {
  char host[256];
  struct event *event = nullptr;
  std::atomic<uint32_t> address{SOCK_NO_ADDRESS};
  std::atomic<bool> done{false};
  std::atomic<int> holders{2};
};

Lookup::Lookup(const char *host) : address_(SOCK_NO_ADDRESS) {
  if (needs_no_thread(host)) {
    address_ = sock_get_hostip(host);
    return;
  }
  auto *const shared = new (std::nothrow) Shared;
  if (shared != nullptr) shared->event = CreateEvent();
  if (shared != nullptr && shared->event != nullptr) {
    std::snprintf(shared->host, sizeof shared->host, "%s", host);
    if (start_detached(run, shared)) {
      shared_ = shared;
      return;
    }
    DestroyEvent(shared->event);
  }
  delete shared;
  address_ = sock_get_hostip(host);
}

Lookup::~Lookup() {
  if (shared_ != nullptr) let_go(shared_);
}

bool Lookup::wait(int milliseconds) {
  if (shared_ == nullptr) return true;
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  if (!WaitEventUntil(shared_->event, until, [this] { return shared_->done.load(); })) return false;
  address_ = shared_->address;
  return true;
}

void *Lookup::run(void *argument) {
  auto *const shared = static_cast<Shared *>(argument);
  pthread_setname_np(pthread_self(), "c2ms-lookup");
  shared->address = sock_get_hostip(shared->host);
  shared->done = true;
  SetEventAll(shared->event, 1);
  let_go(shared);
  return nullptr;
}

void Lookup::let_go(Shared *shared) {
  if (shared->holders.fetch_sub(1) > 1) return;
  DestroyEvent(shared->event);
  delete shared;
}

}  // namespace c2ms
