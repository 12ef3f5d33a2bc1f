// Files of the media server, see files.h.
#include "testing/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "testing/media_server.h"
#include "testing/wire.h"

namespace refserver {

media_file::~media_file() {
  if (fd >= 0) close(fd);
}

void media_file::read(uint64_t position, uint8_t *out, size_t wanted) const {
  const uint64_t left = position < size ? size - position : 0;
  size_t exist = static_cast<size_t>(std::min<uint64_t>(wanted, left));
  if (from == source::generated) {
    content_fill(id, position, out, exist);
  } else if (from == source::memory) {
    for (size_t done = 0; done < exist;) {
      const std::span<const uint8_t> piece = in_memory(position + done, exist - done);
      std::memcpy(out + done, piece.data(), piece.size());
      done += piece.size();
    }
  } else {
    size_t done = 0;
    while (done < exist) {
      const ssize_t n = pread(fd, out + done, exist - done, static_cast<off_t>(position + done));
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    exist = done;
  }
  std::fill(out + exist, out + wanted, uint8_t{0xee});
}

std::span<const uint8_t> media_file::in_memory(uint64_t position, size_t wanted) const {
  if (from != source::memory || memory.empty() || position >= size) return {};
  const auto at = static_cast<size_t>(position % memory.size());
  const uint64_t left = std::min<uint64_t>(memory.size() - at, size - position);
  return {reinterpret_cast<const uint8_t *>(memory.data()) + at,
          static_cast<size_t>(std::min<uint64_t>(wanted, left))};
}

uint32_t media_file::existing(uint64_t offset, uint32_t length) const {
  return offset < size ? static_cast<uint32_t>(std::min<uint64_t>(length, size - offset)) : 0;
}

static std::string last_part(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

media_file *file_store::add(const std::string &name, uint64_t size, uint8_t type) {
  const file_id id = md5(name);
  media_file &file = files_[id];
  file.id = id;
  file.name = last_part(name);
  file.size = size;
  file.type = type;
  return &file;
}

media_file *file_store::add_disk(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info;
  if (fd < 0) return nullptr;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    return nullptr;
  }
  media_file *file = add(path, static_cast<uint64_t>(info.st_size), type_by_name(path));
  if (file->fd >= 0) close(file->fd);
  file->fd = fd;
  file->from = media_file::source::disk;
  return file;
}

media_file *file_store::find(const file_id &id) {
  const auto found = files_.find(id);
  return found == files_.end() ? nullptr : &found->second;
}

file_id id_of(std::string_view path) {
  return md5(path);
}

uint8_t type_by_name(std::string_view name) {
  static constexpr std::string_view types[] = {"bin", "wmv", "avi", "flv", "rmvb", "rm",
                                               "frf", "mp4", "ts",  "mkv", "7z"};
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return 0;
  std::string ending(name.substr(dot + 1));
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const auto *found = std::find(std::begin(types), std::end(types), ending);
  return found == std::end(types) ? 0 : static_cast<uint8_t>(found - types);
}

}  // namespace refserver
