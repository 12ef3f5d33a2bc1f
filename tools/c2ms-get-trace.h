// What was recorded of a run, as files: a trace in the Chrome trace-event format, which trace
// viewers open, and a picture of the play as SVG.
#pragma once

#include <c2ms.h>

#include <map>
#include <string>
#include <vector>

namespace get {

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
