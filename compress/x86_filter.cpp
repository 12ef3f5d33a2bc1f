// The x86 branch-call-jump filter; its rules stand in the header.
#include "compress/x86_filter.h"

#include <bit>

namespace compress {
namespace {

constexpr size_t kBranchSize = 5;     // opcode and 32-bit operand
constexpr uint32_t kReach = 0b111;    // an unconverted opcode further back does not count
constexpr uint32_t kOffsetBits = 25;  // sign bit included

enum class Direction { encode, decode };

bool is_branch(uint8_t byte) {
  return (byte & 0xFE) == 0xE8;
}

bool is_sign(uint8_t byte) {
  return byte == 0x00 || byte == 0xFF;
}

uint32_t load(const uint8_t *p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

void store(uint8_t *p, uint32_t value) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t sign_extend(uint32_t value) {
  constexpr uint32_t sign = uint32_t{1} << (kOffsetBits - 1);
  constexpr uint32_t mask = (sign << 1) - 1;
  return ((value & mask) ^ sign) - sign;
}

/// `operand` at the branch whose next instruction lies at `next`; `back` is how far before it the
/// one unconverted opcode lies, 0 without one.
uint32_t convert(uint32_t operand, uint32_t next, unsigned back, Direction direction) {
  const uint32_t step = direction == Direction::encode ? next : 0 - next;
  uint32_t result = operand + step;
  const unsigned shared = 32 - 8 * back;  // bits up to and with the shared byte
  if (back > 0 && is_sign(static_cast<uint8_t>(result >> (shared - 8)))) {
    // The second sum leaves the operand's own bits there, inverted: no sign byte, and reversible.
    result = (result ^ ((uint32_t{1} << shared) - 1)) + step;
  }
  return sign_extend(result);
}

/// May the branch at `p` be converted, given the unconverted opcodes before it?
bool convertible(const uint8_t *p, uint32_t unconverted) {
  if (!is_sign(p[4])) return false;
  if (unconverted == 0) return true;
  return std::has_single_bit(unconverted) && !is_sign(p[4 - std::bit_width(unconverted)]);
}

size_t filter(std::span<uint8_t> data, Direction direction) {
  size_t converted = 0;
  uint32_t unconverted = 0;  // bit d-1: the byte d back is an opcode that was left as it is
  for (size_t pos = 0; data.size() - pos >= kBranchSize;) {
    uint8_t *const p = &data[pos];
    const bool branch = is_branch(*p);
    if (!branch || !convertible(p, unconverted)) {
      unconverted = (unconverted << 1 | uint32_t{branch}) & kReach;
      ++pos;
      continue;
    }
    const auto back = static_cast<unsigned>(std::bit_width(unconverted));
    pos += kBranchSize;  // wraps at 4 GiB below, as the operands do
    store(p + 1, convert(load(p + 1), static_cast<uint32_t>(pos), back, direction));
    unconverted = 0;
    ++converted;
  }
  return converted;
}

}  // namespace

size_t x86_encode(std::span<uint8_t> data) {
  return filter(data, Direction::encode);
}

size_t x86_decode(std::span<uint8_t> data) {
  return filter(data, Direction::decode);
}

}  // namespace compress
