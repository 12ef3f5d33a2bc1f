// The Range field of an HTTP request (RFC 9110, 14.1 and 14.2), for one range of bytes.
#pragma once

#include <cstdint>
#include <string_view>

namespace bridge {

enum class range_kind : uint8_t { whole, part, unsatisfiable };

/// What a request is answered with: bytes begin to end (exclusive) of `size`.
struct byte_range {
  range_kind kind;
  uint64_t begin, end;
};

/// A field that is absent, malformed or names several ranges counts for nothing: the whole.
byte_range range_of(std::string_view field, uint64_t size);

}  // namespace bridge
