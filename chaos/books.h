// What the sessions of a run have counted: that it adds up, and agrees with what the servers say.
#pragma once

#include "c2ms.h"
#include "c2ms/core/records.h"
#include "dice.h"
#include "testing/media_server.h"

namespace chaos {

class Books {
 public:
  /// Just before a session is closed.
  void enter(Findings &findings, c2ms_sess *sess);
  /// After an attempt to open one.
  void opened() { ++opens_; }
  /// Of a run of `seconds`, when all sessions are closed.
  void audit(Findings &findings, const refserver::media_server &server, int nodes, double seconds);

 private:
  std::atomic<uint64_t> received_{0}, completed_{0}, opens_{0};
};

}  // namespace chaos
