// The findings of the end-to-end benches: printed as a table while they arrive, written as JSON and
// as a picture at the end.
#pragma once

#include <string>
#include <vector>

namespace bench {

/// One figure, and what it is compared with.
struct finding {
  std::string section;  ///< "throughput", ...
  std::string what;     ///< "4 nodes, 64 KiB, split"
  std::string unit;     ///< of value and beside
  double value = 0;
  double beside = 0;  ///< the limit, the ideal, the other program; 0: nothing
  bool more_is_better = true;
  double goal = 0;  ///< of value / beside; 0: none is set

  double ratio() const { return beside > 0 ? value / beside : 0; }
  bool reached() const { return goal == 0 || (more_is_better ? ratio() >= goal : ratio() <= goal); }
};

class results {
 public:
  void add(const finding &f);  ///< also prints its line
  /// Lines of text that belong to no ratio.
  void note(const std::string &text);
  /// Reports a fault that does not depend on the speed of the machine.
  void fail(const std::string &text);
  bool failed() const { return failed_; }
  bool write_json(const std::string &path) const;
  bool read_json(const std::string &path);  ///< adds the findings of a file; false: there are none
  bool write_svg(const std::string &path) const;

 private:
  std::vector<finding> all_;
  std::vector<std::string> notes_;
  bool failed_ = false;
};

}  // namespace bench
