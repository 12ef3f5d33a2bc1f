// The reference agent and the reference report server on this machine's loopback, for tests and for
// c2ms-server. They read, keep and answer what players report, and can be silent, late, wrong or
// hostile.
//
//   refserver::report_service service({.agent = "127.0.0.1", .report = "127.0.0.9"});
//   if (!service.start()) ... service.error() ...
//   service.set_agent({.begin_result = 30}); play(...); service.messages() ...
//
// Both use port 3528, which the protocol fixes, each on its own address. One thread does the work.
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
  /// Before each reply of an agent, five false ones are sent: from another port, with another
  /// sequence number, oversized, cut, and empty. Those with room for a result have result 40.
  bool noise = false;
  bool hang_up = false;        ///< the report server closes the connection instead of replying
  std::optional<bytes> raw{};  ///< these bytes instead of every reply
};

struct report_options {
  std::string agent{};   ///< address of the agent, dotted; "": no agent
  std::string report{};  ///< the same for the report server; may be the same address
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

  /// The messages of both channels or of one, in order of arrival.
  std::vector<report_message> messages() const;
  std::vector<report_message> messages(report_channel channel) const;
  /// "agent ping, performance play_begin, ..."; for one channel the same without its name.
  std::string story() const;
  std::string story(report_channel channel) const;
  /// The number of messages that could not be read.
  int bad() const;
  void clear();

 private:
  class loop;
  std::unique_ptr<loop> loop_;
};

}  // namespace refserver
