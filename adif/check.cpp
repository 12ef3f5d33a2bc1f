// The end of a process whose invariant is broken. See check.h.
#include "adif/check.h"

#include <cstdio>
#include <cstdlib>

namespace adif {

void check_failed(const char *text, const char *source, const char *function) {
  std::fprintf(stderr, "%s: %s: Assertion `%s' failed.\n", source, function, text);
  std::fflush(stderr);  // a program may have given it a buffer
  std::abort();
}

}  // namespace adif
