// See range.h.
#include "range.h"

#include <algorithm>
#include <optional>

namespace bridge {

namespace {

/// Digits alone; a number beyond 64 bits is their greatest. Nothing for anything else.
std::optional<uint64_t> number(std::string_view text) {
  if (text.empty()) return {};
  uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return {};
    const auto digit = static_cast<uint64_t>(c - '0');
    value = value > (UINT64_MAX - digit) / 10 ? UINT64_MAX : value * 10 + digit;
  }
  return value;
}

}  // namespace

byte_range range_of(std::string_view field, uint64_t size) {
  const byte_range whole{range_kind::whole, 0, size}, none{range_kind::unsatisfiable, 0, 0};
  constexpr std::string_view unit = "bytes=";
  const size_t dash = field.find('-');
  if (!field.starts_with(unit) || dash == field.npos) return whole;
  const std::string_view left = field.substr(unit.size(), dash - unit.size());
  const std::string_view right = field.substr(dash + 1);
  const auto first = number(left), last = number(right);
  if ((!left.empty() && !first) || (!right.empty() && !last) || (!first && !last)) return whole;
  if (!first) {  // the last so many bytes
    if (*last == 0 || size == 0) return none;
    return {range_kind::part, size - std::min(*last, size), size};
  }
  if (last && *last < *first) return whole;
  if (*first >= size) return none;
  return {range_kind::part, *first, last && *last < size ? *last + 1 : size};
}

}  // namespace bridge
