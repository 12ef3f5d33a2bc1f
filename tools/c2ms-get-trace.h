// Writes the recorded events of a run to files: a trace in the Chrome trace-event format, for trace
// viewers, and a picture of the play as SVG.
#pragma once

#include <c2ms.h>

#include <map>
#include <string>
#include <vector>

namespace get {

/// The lane of a connection in trace and picture.
struct Lane {
  uint32_t node;
  std::string name;  // address of its server
};
std::vector<Lane> lanes_of(const std::vector<c2ms_trace_event> &events);

inline int64_t end_of(const c2ms_trace_event &event) {
  return event.time_us + event.duration_us;
}

/// Whether a request completed a pack. The end of the request is then the moment when it did.
inline bool fills_pack(const c2ms_trace_event &event) {
  return event.kind == C2MS_TRACE_REQUEST && event.detail == 0;
}

class Trace {
 public:
  /// Records nothing unless one of the two files is wanted.
  Trace(const std::string &json, const std::string &svg) : json_(json), svg_(svg) {}
  void begin(c2ms_sess *sess);
  /// Takes the events recorded since the last call. Call it often, before old events are replaced.
  void collect(c2ms_sess *sess);
  /// Writes the files. Returns "", or a message.
  std::string write(uint64_t media_size) const;

 private:
  c2ms_trace_event in_its_lane(c2ms_trace_event event);
  bool wanted() const { return !json_.empty() || !svg_.empty(); }

  const std::string json_, svg_;
  std::vector<c2ms_trace_event> events_;
  std::map<uint32_t, int64_t> lane_taken_us_;  // by node: end of its last request
};

}  // namespace get
