// What the targets that unpack containers share.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

/// What a container may unpack to: a few kilobytes, or several slices of the decoder.
inline constexpr uint64_t small_bound = 16 << 10, big_bound = 1 << 20;

/// Tables of megabytes and long contents take milliseconds: inputs with this last byte, which no
/// decoder looks at, may have them; of others only what is quick is tried.
inline bool may_take_long(const uint8_t *data, size_t size) {
  return size > 0 && data[size - 1] == 0xff;
}

/// Whether the decoder's tables, which grow with 2^(lc + lp), are small.
inline bool has_small_tables(const uint8_t *data, size_t size) {
  if (size < 2 || data[1] >= 9 * 5 * 5) return true;  // refused
  return data[1] % 9 + data[1] / 9 % 5 <= 4;
}

}  // namespace fuzz
