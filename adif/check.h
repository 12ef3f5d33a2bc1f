// Checks that stay on in release builds: a broken invariant prints its text, the source path and
// the function, and aborts. Only a caller's programming error can reach one; a peer or a URL never
// does.
#pragma once

namespace adif {

/// Prints "<source>: <function>: Assertion `<text>' failed." to standard error and calls abort().
[[noreturn]] void check_failed(const char *text, const char *source, const char *function);

/// `text` is the invariant as it is known to operators, `source` the source path without its
/// ending.
inline void check(bool holds, const char *text, const char *source,
                  const char *function = __builtin_FUNCTION()) {
  if (!holds) [[unlikely]]
    check_failed(text, source, function);
}

}  // namespace adif
