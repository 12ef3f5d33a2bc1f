// Several sessions of one context over the same access line: who asks for more now, and who waits
// until those of a greater weight have enough ahead.
#pragma once

#include "c2ms/core/records.h"

namespace c2ms {

/// How a session stands among the others. yields: one of a greater weight needs the line. shares:
/// there is one, which may need it soon, so that nothing long may be begun.
struct standing {
  bool yields = false, shares = false;
};

/// Looks at every session of the context. Takes their caches' locks, one at a time; hold none.
standing standing_of(const c2ms_sess *sess);

}  // namespace c2ms
