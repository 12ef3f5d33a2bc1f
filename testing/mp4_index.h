// The separate index file of an MP4 media: its `moov` box, packed. The media server makes it for
// the files that it serves (media_server::add_index), and tests make one to damage it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace refserver {

/// Reads `size` bytes at `position` of a file into `out`; positions are inside the file.
using file_reader = std::function<void(uint64_t position, uint8_t *out, size_t size)>;

struct mp4_moov {
  uint64_t offset = 0;
  uint64_t size = 0;  ///< 0: none was found, `problem` tells why
  std::string problem;
};

/// Finds the `moov` box among the boxes of the file's top level (ISO/IEC 14496-12, 4.2), however
/// many there are. A `moov` box that announces fragments (it holds an `mvex` box) does not count:
/// the samples are described beside the fragments, not in it.
mp4_moov find_moov(uint64_t file_size, const file_reader &read);

/// Packs bytes as an index file. Empty: not enough memory.
std::string pack_index(const std::string &plain);

}  // namespace refserver
