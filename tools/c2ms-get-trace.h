// What was recorded of a run, as files: a trace in the Chrome trace-event format, which trace
// viewers open, and a picture of the play as SVG.
#pragma once

#include <c2ms.h>

#include <map>
#include <string>
#include <vector>

namespace get {

/// A connection has a lane of its own, in trace and picture.
struct Lane {
  uint32_t node;
  std::string name;  // its server's address
};
std::vector<Lane> lanes_of(const std::vector<c2ms_trace_event> &events);

inline int64_t end_of(const c2ms_trace_event &event) {
  return event.time_us + event.duration_us;
}

/// The end of such a request is the moment at which its pack is complete.
inline bool fills_pack(const c2ms_trace_event &event) {
  return event.kind == C2MS_TRACE_REQUEST && event.detail == 0;
}

class Trace {
 public:
  /// Does nothing unless one of the two files is wanted.
  Trace(const std::string &json, const std::string &svg) : json_(json), svg_(svg) {}
  void begin(c2ms_sess *sess);
  /// Takes what was recorded meanwhile; often enough that nothing gives way.
  void collect(c2ms_sess *sess);
  /// Writes the files; empty, or what failed.
  std::string write(uint64_t media_size) const;

 private:
  c2ms_trace_event in_its_lane(c2ms_trace_event event);
  bool wanted() const { return !json_.empty() || !svg_.empty(); }

  const std::string json_, svg_;
  std::vector<c2ms_trace_event> events_;
  std::map<uint32_t, int64_t> lane_taken_us_;  // by node: up to the end of its last request
};

}  // namespace get
