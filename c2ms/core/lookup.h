// Name look-ups that can be left behind. The C library's look-up may hang for as long as its name
// servers are silent, and nothing ends it. So it runs on a thread of its own, which shares nothing
// with the session: who does not want to wait any longer goes, and the thread frees the rest when
// it ends.
#pragma once

#include <cstdint>

namespace c2ms {

/// A look-up under way.
class Lookup {
 public:
  /// Begins. A dotted address or an empty name is there at once. Without a thread or memory the
  /// look-up is done here, and takes its time.
  explicit Lookup(const char *host);
  ~Lookup();
  Lookup(const Lookup &) = delete;
  Lookup &operator=(const Lookup &) = delete;

  /// Waits at most so long; true when the result is there.
  bool wait(int milliseconds);
  /// The address in network order, SOCK_NO_ADDRESS when there is none, 0 for an empty name.
  uint32_t address() const { return address_; }

 private:
  struct Shared;
  static void *run(void *shared);
  static void let_go(Shared *shared);

  Shared *shared_ = nullptr;  // nullptr: the address is there
  uint32_t address_;
};

/// Looks a name up for as long as `goes_on()` says so, which is asked every few milliseconds.
/// SOCK_NO_ADDRESS when it did not, too.
template <class GoesOn>
uint32_t look_up(const char *host, GoesOn goes_on) {
  constexpr int step_ms = 5;
  Lookup lookup(host);
  while (!lookup.wait(step_ms)) {
    if (!goes_on()) break;
  }
  return lookup.address();
}

}  // namespace c2ms
