// What the media server serves: files of the disk, generated content and bytes in memory, found by
// id. Belongs to the server's one thread.
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

  /// Writes bytes [position, position + size) to `out`; what lies beyond the file's end, or cannot
  /// be read any more, becomes 0xee.
  void read(uint64_t position, uint8_t *out, size_t size) const;

  /// The bytes from `position` on as they lie in memory, at most `size` of them; none for a file
  /// that does not lie there.
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
  /// Opens a regular file. NULL: it cannot be.
  media_file *add_disk(const std::string &path);
  /// A file of the given name without content; the one that has the name already, if there is one.
  media_file *add(const std::string &name, uint64_t size, uint8_t type);
  media_file *find(const file_id &id);

 private:
  std::map<file_id, media_file> files_;
};

}  // namespace refserver
