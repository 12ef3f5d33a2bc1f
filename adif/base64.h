// Base64 (RFC 4648, section 4) over byte ranges. Thread-safe, non-blocking.
#pragma once

#include <cstdint>

/// Writes 4 characters for every 3 bytes, padded with "=", without line breaks. `out` holds at
/// least (len + 2) / 3 * 4 characters; no NUL is added. Returns the characters written; -1 for null
/// bytes, `len` < 1 or a result beyond INT32_MAX; -2 for null `out`.
int bin_to_base64(const void *bytes, int len, char *out);

/// Reads base64 text, skipping blanks, tabs and line ends. The padding may be missing, but not be
/// wrong, and ends the text. `out` holds at least (len + 3) / 4 * 3 bytes and may be the text
/// itself. Returns the bytes written; -1 for null text or `len` < 1; -2 for null `out`; -100 at a
/// character outside the alphabet, or when the text ends inside a byte (whole bytes before are
/// written).
int base64_to_bin(const char *text, int len, void *out);
