// Generated media content, word by word; see content.h for the function.
#include "testing/content.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace refserver {

static uint64_t little(const void *bytes) {
  uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  return word;
}

static uint64_t content_word(uint64_t seed, uint64_t index) {
  uint64_t z = seed + (index + 1) * 0x9e3779b97f4a7c15U;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
  z ^= z >> 31;
  return little(&z);
}

void content_fill(const file_id &id, uint64_t position, void *out, size_t size) {
  const uint64_t seed = little(id.data()) ^ little(id.data() + 8);
  auto *to = static_cast<uint8_t *>(out);
  uint64_t index = position / 8;
  if (const size_t skip = position % 8; skip != 0 && size != 0) {
    const uint64_t word = content_word(seed, index++);
    const size_t n = std::min(size, 8 - skip);
    std::memcpy(to, reinterpret_cast<const uint8_t *>(&word) + skip, n);
    to += n;
    size -= n;
  }
  for (; size >= 8; size -= 8, to += 8) {
    const uint64_t word = content_word(seed, index++);
    std::memcpy(to, &word, 8);
  }
  if (size != 0) {
    const uint64_t word = content_word(seed, index);
    std::memcpy(to, &word, size);
  }
}

uint8_t content_byte(const file_id &id, uint64_t position) {
  uint8_t byte;
  content_fill(id, position, &byte, 1);
  return byte;
}

size_t content_mismatch(const file_id &id, uint64_t position, const void *data, size_t size) {
  const auto *got = static_cast<const uint8_t *>(data);
  uint8_t expected[4096];
  for (size_t done = 0; done < size;) {
    const size_t n = std::min(sizeof expected, size - done);
    content_fill(id, position + done, expected, n);
    if (std::memcmp(expected, got + done, n) != 0)
      return done + (std::mismatch(expected, expected + n, got + done).first - expected);
    done += n;
  }
  return size;
}

}  // namespace refserver
