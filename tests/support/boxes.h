// Writes small MP4 files: just the boxes that matter to who looks for `moov`, with bytes inside
// that repeat nowhere, so that a byte from the wrong place is noticed.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

namespace boxes {

inline std::string big_endian(uint64_t value, int width) {
  std::string out;
  for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<char>(value >> (8 * i)));
  return out;
}

/// A box around `content`, its size in 32 bits.
inline std::string box(const char *type, const std::string &content) {
  return big_endian(content.size() + 8, 4) + type + content;
}

/// A header alone, with a size that may be wrong; the 64-bit size follows when `size` is 1.
inline std::string header(uint64_t size, const char *type, uint64_t size64 = 0) {
  return big_endian(size, 4) + type + (size == 1 ? big_endian(size64, 8) : "");
}

/// Bytes that can't be packed.
inline std::string noise(size_t size, uint32_t seed = 1) {
  std::mt19937 random(seed);
  std::string out(size, '\0');
  for (size_t at = 0; at < size; at += 4) {
    const auto word = static_cast<uint32_t>(random());
    std::memcpy(&out[at], &word, std::min<size_t>(4, size - at));
  }
  return out;
}

inline std::string ftyp() {
  return box("ftyp", "isom" + big_endian(512, 4) + "isomiso2");
}

/// A `moov` of exactly `size` bytes (at least 200): one track whose table of sample sizes fills it,
/// as in a long film, and packs to about half.
inline std::string moov(size_t size) {
  std::string table = big_endian(0, 8) + big_endian((size - 200) / 4, 4);
  std::mt19937 random(7);
  while (table.size() + 4 <= size - 140) table += big_endian(4000 + random() % 4000, 4);
  const std::string movie = box("mvhd", std::string(60, '\0'));
  const std::string track = box("trak", box("mdia", box("minf", box("stbl", box("stsz", table)))));
  return box("moov", movie + track +
                         box("free", std::string(size - 16 - movie.size() - track.size(), '\0')));
}

}  // namespace boxes
