// The reference agent and the reference report server on this machine's loopback, for tests and for
// c2ms-server: they read what players report, answer, keep it, and can be silent, late, wrong or
// hostile.
//
//   refserver::report_service service({.agent = "127.0.0.1", .report = "127.0.0.9"});
//   if (!service.start()) ... service.error() ...
//   service.set_agent({.begin_result = 30}); play(...); service.messages() ...
//
// Both use port 3528, which the protocol fixes, on one address each. One thread does the work.
// Every member function may be called by any thread after start(). Nothing throws.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "testing/report_wire.h"

namespace refserver {

/// How an agent or report server answers.
struct report_manners {
  bool silent = false;  ///< reads and never answers
  int delay_ms = 0;
  uint32_t ping_result = 0, begin_result = 0, end_result = 0;
  bool wrong_kind = false;  ///< replies are of another kind
  /// Sent before each reply of an agent: one from a foreign port, one of another sequence number,
  /// an oversized, a cut and an empty datagram. All of them carry result 40 where they have room
  /// for one.
  bool noise = false;
  bool hang_up = false;        ///< a report server closes instead of replying
  std::optional<bytes> raw{};  ///< these bytes instead of every reply
};

struct report_options {
  std::string agent{};   ///< dotted address; "": no agent
  std::string report{};  ///< the same of the report server; may be the agent's
  std::function<void(const report_message &)> on_message{};  ///< on the service's thread
};

class report_service {
 public:
  explicit report_service(report_options options);
  ~report_service();  ///< stops
  report_service(const report_service &) = delete;
  report_service &operator=(const report_service &) = delete;

  bool start();  ///< false: a port cannot be had; error() tells which
  void stop();
  std::string error() const;

  void set_agent(const report_manners &manners);
  void set_report(const report_manners &manners);

  /// What came in order of arrival, of both channels or of one.
  std::vector<report_message> messages() const;
  std::vector<report_message> messages(report_channel channel) const;
  /// "agent ping, performance play_begin, ..." and the same of one channel without its name.
  std::string story() const;
  std::string story(report_channel channel) const;
  /// Messages that could not be read.
  int bad() const;
  void clear();

 private:
  class loop;
  std::unique_ptr<loop> loop_;
};

}  // namespace refserver
