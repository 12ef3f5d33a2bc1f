// Where in the source a call was made, for diagnosis. Stands in for std::source_location, which the
// oldest compiler that we build with doesn't have.
#pragma once

namespace adif {

struct source_place {
  const char *file;
  int line;

  /// As a default argument: the place of the call that leaves the argument out.
  static constexpr source_place current(const char *file = __builtin_FILE(),
                                        int line = __builtin_LINE()) {
    return {file, line};
  }
};

}  // namespace adif
