// The files of the media server: files on disk, generated content and bytes in memory, found by id.
// Only the server's one thread uses them.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>

#include "testing/content.h"

namespace refserver {

struct media_file {
  media_file() = default;
  ~media_file();  ///< closes `fd`
  media_file(const media_file &) = delete;
  media_file &operator=(const media_file &) = delete;

  /// Writes bytes [position, position + size) to `out`. Bytes beyond the file's end, and bytes that
  /// cannot be read any more, become 0xee.
  void read(uint64_t position, uint8_t *out, size_t size) const;

  /// At most `size` bytes from `position` on, where they are in memory; none for a file that is not
  /// in memory.
  std::span<const uint8_t> in_memory(uint64_t position, size_t size) const;

  /// How many of `length` bytes from `offset` exist.
  uint32_t existing(uint64_t offset, uint32_t length) const;

  enum class source : uint8_t { disk, memory, generated };

  file_id id{};
  std::string name;  ///< last part of its path
  uint64_t size = 0;
  uint8_t type = 0;
  source from = source::generated;
  int fd = -1;
  std::string memory;                 ///< repeated as often as `size` needs
  const media_file *index = nullptr;  ///< its separate index file, if any
};

/// Files stay where they are in memory and are never removed.
class file_store {
 public:
  /// Opens a regular file. NULL: this failed.
  media_file *add_disk(const std::string &path);
  /// The file with this name; a new one without content if there is none.
  media_file *add(const std::string &name, uint64_t size, uint8_t type);
  media_file *find(const file_id &id);

 private:
  std::map<file_id, media_file> files_;
};

}  // namespace refserver
