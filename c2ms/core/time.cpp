// See time.h.
#include "c2ms/core/time.h"

namespace c2ms {

int64_t now_us() {
  using std::chrono::duration_cast;
  using std::chrono::microseconds;
  static const int64_t offset =
      duration_cast<microseconds>(std::chrono::system_clock::now().time_since_epoch()).count() -
      duration_cast<microseconds>(steady::now().time_since_epoch()).count();
  return offset + duration_cast<microseconds>(steady::now().time_since_epoch()).count();
}

}  // namespace c2ms
