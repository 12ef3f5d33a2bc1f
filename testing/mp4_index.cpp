// Makes index files of MP4 media, see mp4_index.h.
#include "testing/mp4_index.h"

#include <lzma.h>

#include <cstring>

namespace refserver {
namespace {

constexpr uint64_t largest_moov = uint64_t{64} << 20;  // players refuse what is larger

struct box {
  uint64_t size = 0;  ///< header included
  uint64_t header = 8;
  char type[4] = {};
};

uint64_t big_endian(const uint8_t *at, int width) {
  uint64_t value = 0;
  for (int i = 0; i < width; ++i) value = value << 8 | at[i];
  return value;
}

/// Reads the box at `at` of a file or box that ends at `end`; false: there is no valid one.
bool read_box(uint64_t at, uint64_t end, const file_reader &read, box *out) {
  uint8_t bytes[16] = {};
  if (end - at < 8) return false;
  read(at, bytes, end - at < 16 ? 8 : 16);
  box found;
  found.size = big_endian(bytes, 4);
  std::memcpy(found.type, bytes + 4, 4);
  if (found.size == 1) {
    found.size = big_endian(bytes + 8, 8);
    found.header = 16;
  } else if (found.size == 0) {
    found.size = end - at;
  }
  *out = found;
  return found.size >= found.header && found.size <= end - at;
}

/// The position of the first box of a type in [at, end); `end` when there is none.
uint64_t find_box(uint64_t at, uint64_t end, const char *type, const file_reader &read, box *out) {
  while (at < end) {
    if (!read_box(at, end, read, out)) return end;
    if (std::memcmp(out->type, type, 4) == 0) return at;
    at += out->size;
  }
  return end;
}

}  // namespace

mp4_moov find_moov(uint64_t file_size, const file_reader &read) {
  box moov, mvex;
  const uint64_t at = find_box(0, file_size, "moov", read, &moov);
  if (at == file_size) return {.problem = "no moov box"};
  if (moov.size > largest_moov) return {.problem = "the moov box is too large"};
  const uint64_t end = at + moov.size;
  if (find_box(at + moov.header, end, "mvex", read, &mvex) != end) return {.problem = "fragmented"};
  return {at, moov.size, ""};
}

// An index file is a byte that names a filter (0: none), then the output of the encoder of .lzma
// files: 5 bytes of properties, 8 bytes for the size, the stream with a mark at its end. That
// encoder leaves the size open.
std::string pack_index(const std::string &plain) {
  constexpr uint32_t level = 1;  // higher ones gain a few percent at twice the time
  constexpr size_t size_at = 6;
  lzma_options_lzma options;
  lzma_stream stream = LZMA_STREAM_INIT;
  if (lzma_lzma_preset(&options, level) || lzma_alone_encoder(&stream, &options) != LZMA_OK)
    return {};
  std::string packed(plain.size() + plain.size() / 4 + 128, '\0');
  stream.next_in = reinterpret_cast<const uint8_t *>(plain.data());
  stream.avail_in = plain.size();
  stream.next_out = reinterpret_cast<uint8_t *>(packed.data()) + 1;
  stream.avail_out = packed.size() - 1;
  const bool whole = lzma_code(&stream, LZMA_FINISH) == LZMA_STREAM_END;
  packed.resize(whole ? 1 + stream.total_out : 0);
  lzma_end(&stream);
  for (size_t i = 0; whole && i < 8; ++i)
    packed[size_at + i] = static_cast<char>(uint64_t{plain.size()} >> (8 * i));
  return packed;
}

}  // namespace refserver
