// What is to fail in this process: one kind of call, at one number, once or from then on; or a
// storm over many. The replaced calls (calls.cpp, heap.cpp) ask here. One plan per process, atomics
// only: it is asked from malloc.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace sweep {

enum class call : uint8_t {
  allocation,
  socket,
  socketpair,
  connect,
  send,
  recv,
  recvmsg,
  select,
  poll,
  getsockopt,
  setsockopt,
  getpeername,
  ioctl,
  fstat,
  open,
  fopen,
  resolve,
  thread,
};
inline constexpr int calls = static_cast<int>(call::thread) + 1;
const char *name_of(call which);
bool call_of(std::string_view name, call *out);

enum class weather : uint8_t { none, eintr, eagain, pieces, all };  // of a storm
inline constexpr const char *weather_names[] = {"none", "eintr", "eagain", "pieces", "all"};

namespace plan {

/// Begins to count; call number `nth` of the kind fails (0: none), and with `for_good` every later
/// one.
void arm(call which, uint32_t nth, bool for_good);
/// `percent` of the calls that move bytes or wait meet the weather, chosen by the seed.
void storm(weather kind, uint32_t percent, uint64_t seed);
/// Nothing fails any more.
void stop();

bool active();         ///< armed, and not stopped
uint32_t injected();   ///< failures so far
double since_first();  ///< seconds since the first failure; 0 before
uint32_t count(call which);

/// Asked by the replaced calls: whether this one fails; counts it. errno is set.
bool fails(call which);
/// The weather that this call meets.
weather meets();

/// Wake-up sockets are filled to the brim before each byte that is written to them.
extern std::atomic<bool> brim;
/// Added to every reading of the wall clock, in seconds.
extern std::atomic<int64_t> clock_ahead;
/// pthread_mutex_lock says EINVAL.
extern std::atomic<bool> broken_mutex;
/// Name look-ups take this long, in ms.
extern std::atomic<int> slow_names;
/// A slow one has begun.
extern std::atomic<bool> looking_up;
/// Connections after the first `straight` lead to this port, 0: to their own. (Not those of
/// reports.)
extern std::atomic<int> hole, straight;

/// While one lives, this thread's calls are not counted and do not fail: the harness's own. Threads
/// that it starts are the same.
class Exempt {
 public:
  explicit Exempt(bool exempt = true);
  ~Exempt();
  Exempt(const Exempt &) = delete;
  Exempt &operator=(const Exempt &) = delete;

 private:
  const bool before_;
};

bool is_exempt();

}  // namespace plan
}  // namespace sweep
