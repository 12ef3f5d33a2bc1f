// A library for tests: silent, and looked at when it goes.
#pragma once

#include "c2ms.h"
#include "c2ms/core/records.h"
#include "support/aftermath.h"

namespace support {

/// So that nothing takes long: whoever is silent is given up after a second or two, and reports go
/// to nobody.
void shorten_waits(c2ms_mgmt *mgmt);

/// A context and what it held before the first session.
class Library {
 public:
  explicit Library(int32_t memory = 8 << 20, const char *conf = nullptr);
  ~Library() { clean(); }
  Library(const Library &) = delete;
  Library &operator=(const Library &) = delete;

  c2ms_mgmt *get() const { return mgmt_; }
  c2ms_mgmt *operator->() const { return mgmt_; }
  /// Every session is closed: nothing of them is left.
  void check(Findings &findings) const { check_idle(findings, mgmt_, idle_); }
  /// Its result, 0 when there is none any more.
  int clean();

 private:
  c2ms_mgmt *mgmt_;
  Idle idle_;
};

}  // namespace support
