// The x86 branch-call-jump filter, in place over a whole buffer. Used by the Lzma86 container.
//
// A CALL or JMP (opcode E8 or E9) holds its target as a 32-bit little-endian distance from the next
// instruction. The encoder turns that distance into the target's offset in the buffer, so that
// calls of one function from many places become equal bytes and compress well; the decoder turns it
// back. The rules for which opcodes count must be the same in every implementation, to the bit:
//
// clang-format off
//   1. The operand's top byte is 00 or FF before and after the conversion (a target within 16 MiB).
//      The sum is kept to 25 bits and sign-extended.
//   2. An opcode that was not converted still counts: among the three bytes before a converted one
//      lies at most one such opcode, and the byte that both operands share (the top byte of the
//      first) is neither 00 nor FF, before and after the conversion. Otherwise the decoder could
//      not tell which of the two was converted.
//   3. The last four bytes of the buffer start no instruction.
//   4. After a conversion the scan goes on behind the operand.
// clang-format on
//
// Format: the BCJ x86 filter of the LZMA SDK and of the .xz file format (filter id 04), start
// offset 0. Decoding undoes encoding for every input; both run in linear time, without memory of
// their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace compress {

/// Distances to offsets. Returns how many branches were converted: with 0 the data is unchanged.
size_t x86_encode(std::span<uint8_t> data);

/// Offsets back to distances. Returns how many branches were converted.
size_t x86_decode(std::span<uint8_t> data);

}  // namespace compress
