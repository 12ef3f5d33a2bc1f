// Configuration files in memory: reading, changing, writing. See profile.h.
#include "adif/profile.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "adif/kalloc.h"
#include "adif/line_sink.h"
#include "adif/source_place.h"

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

struct close_file {
  void operator()(std::FILE *file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, close_file>;
using profile_ptr =
    std::unique_ptr<profile_section,
                    decltype([](profile_section *profile) { FreeProfile(profile); })>;

// A profile that is only half there would be worse than none: without memory the process ends.
[[noreturn]] void end_without_memory(adif::source_place caller = adif::source_place::current()) {
  adif::say_line("file %s, line %d memory NULL! exit(1)\n", "adif/confile.cpp", caller.line);
  std::exit(1);
}

std::string_view cut(std::string_view text, int longest) {
  return text.substr(0, static_cast<size_t>(longest));
}

// These give null without memory.
char *copy_text(std::string_view text) {
  auto *const copy = static_cast<char *>(kzalloc_dbg(static_cast<int64_t>(text.size()) + 1));
  if (copy != nullptr) text.copy(copy, text.size());
  return copy;
}

void put_text(std::string_view text, char *out) {
  out[text.copy(out, text.size())] = '\0';
  trim(out);
}

profile_section *new_section(std::string_view name) {
  auto *const section = static_cast<profile_section *>(kzalloc_dbg(sizeof(profile_section)));
  if (section == nullptr) return nullptr;
  section->name = copy_text(name);
  if (section->name != nullptr) return section;
  kfree_dbg(section);
  return nullptr;
}

profile_key *new_key(std::string_view key, std::string_view value) {
  auto *const entry = static_cast<profile_key *>(kzalloc_dbg(sizeof(profile_key)));
  if (entry == nullptr) return nullptr;
  entry->key = copy_text(key);
  entry->value = copy_text(value);
  if (entry->key != nullptr && entry->value != nullptr) return entry;
  kfree_dbg(entry->key);
  kfree_dbg(entry->value);
  kfree_dbg(entry);
  return nullptr;
}

profile_section *find_section(profile_section *profile, const char *name) {
  // Equal names are not merged: the first one in the file counts.
  for (profile_section *section = profile; section != nullptr; section = section->next) {
    if (strcasecmp(section->name, name) == 0) return section;
  }
  return nullptr;
}

profile_key *find_key(const profile_section *section, const char *key) {
  for (profile_key *entry = section->first_key; entry != nullptr; entry = entry->next) {
    if (strcasecmp(entry->key, key) == 0) return entry;
  }
  return nullptr;
}

// Reads a regular file of an acceptable size; its length, or -1. Never blocks on what is no file.
int64_t read_file(const char *path, adif::kptr<char> *content) {
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return -1;
  const file_ptr file(fdopen(fd, "r"));
  if (file == nullptr) {
    close(fd);
    return -1;
  }
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > kProfileFileMax) return -1;
  // One byte more than acceptable tells a file that has grown since.
  content->reset(static_cast<char *>(kalloc_dbg(kProfileFileMax + 1)));
  if (*content == nullptr) return -1;
  const size_t length = std::fread(content->get(), 1, kProfileFileMax + 1, file.get());
  if (std::ferror(file.get()) != 0 || length > kProfileFileMax) return -1;
  return static_cast<int64_t>(length);
}

// Where a profile that is being loaded grows.
class profile_builder {
 public:
  // False when the line is malformed.
  bool add_line(char *line) {
    switch (AnalysisTextLine(line)) {
      case kLineHeader:
        add_section(line);
        return true;
      case kLineEntry:
        add_key(line);
        return true;
      case kLineEmpty:
        return true;
      default:
        return false;
    }
  }

  // Something has no place for want of memory: nothing more is added.
  bool lacks_memory() const { return last_section_ == nullptr; }
  profile_section *release() { return head_.release(); }

 private:
  void add_section(const char *line) {
    char name[kProfileSectionMax + 1];
    GetSectionName(line, name);
    last_section_ = last_section_->next = new_section(name);
    if (last_section_ != nullptr) last_key_ = &last_section_->first_key;
  }

  void add_key(const char *line) {
    char key[kProfileKeyMax + 1];
    char value[kProfileValueMax + 1];
    GetKeyInfo(line, key, value);
    *last_key_ = new_key(key, value);
    if (*last_key_ == nullptr) {
      last_section_ = nullptr;
      return;
    }
    last_key_ = &(*last_key_)->next;
  }

  profile_ptr head_{new_section("")};
  profile_section *last_section_ = head_.get();  // null: no memory
  profile_key **last_key_ =
      head_ != nullptr ? &head_->first_key : nullptr;  // where the next key is linked
};

}  // namespace

void trim(char *text) {
  if (text == nullptr) return;
  std::string_view rest(text);
  rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
  rest = rest.substr(0, rest.find_last_not_of(kBlanks) + 1);
  rest = rest.substr(0, rest.find('#'));
  std::memmove(text, rest.data(), rest.size());
  text[rest.size()] = '\0';
}

unsigned AnalysisTextLine(char *line) {
  trim(line);
  const std::string_view text(line);
  if (text.empty()) return kLineEmpty;  // (a comment is gone by now)
  if (text.front() == '[' && text.back() == ']') return kLineHeader;
  const size_t equals = text.find('=');
  return equals == text.npos || equals == 0 ? kLineMalformed : kLineEntry;
}

void GetSectionName(const char *line, char *out) {
  const std::string_view text(line);
  const std::string_view inner = text.size() < 2 ? "" : text.substr(1, text.size() - 2);
  // Cut before it is trimmed (meant): blanks count towards the limit.
  put_text(cut(inner, kProfileSectionMax), out);
}

void GetKeyInfo(const char *line, char *key_out, char *value_out) {
  const std::string_view text(line);
  const size_t equals = std::min(text.find('='), text.size());
  put_text(cut(text.substr(0, equals), kProfileKeyMax), key_out);
  const size_t value = std::min(equals + 1, text.size());
  put_text(cut(text.substr(value), kProfileValueMax), value_out);
}

profile_section *TryParseProfile(const char *data, int64_t length, const char *path,
                                 bool *no_memory) {
  profile_builder builder;
  char line[kProfileLineMax + 1];
  for (int64_t at = 0; at < length && !builder.lacks_memory();) {
    // A longer line falls into pieces, each a line of its own (meant).
    const auto most = static_cast<size_t>(std::min<int64_t>(length - at, kProfileLineMax));
    const void *const feed = std::memchr(data + at, '\n', most);
    const size_t size = feed == nullptr ? most : static_cast<const char *>(feed) - (data + at) + 1;
    std::memcpy(line, data + at, size);
    line[size] = '\0';
    if (!builder.add_line(line)) {
      adif::say_line("profile %s format not support\n", path);
      return nullptr;
    }
    at += static_cast<int64_t>(size);
  }
  *no_memory = builder.lacks_memory();
  return *no_memory ? nullptr : builder.release();
}

profile_section *ParseProfile(const char *data, int64_t length, const char *path) {
  bool no_memory = false;
  profile_section *const profile = TryParseProfile(data, length, path, &no_memory);
  if (no_memory) end_without_memory();
  return profile;
}

profile_section *TryLoadProfile(const char *path, bool *no_memory) {
  *no_memory = false;
  if (path == nullptr) return nullptr;
  adif::kptr<char> content;
  const int64_t length = read_file(path, &content);
  return TryParseProfile(content.get(), length, path, no_memory);
}

profile_section *LoadProfile(const char *path) {
  bool no_memory;
  profile_section *const profile = TryLoadProfile(path, &no_memory);
  if (no_memory) end_without_memory();
  return profile;
}

void SaveProfile(const char *path, const profile_section *profile) {
  // Non-blocking: a FIFO that nobody reads must not hold the caller.
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) return;
  const file_ptr file(fdopen(fd, "w"));
  if (file == nullptr) {
    close(fd);
    return;
  }
  for (const profile_section *section = profile; section != nullptr; section = section->next) {
    if (section != profile) std::fputc('\n', file.get());
    if (section->name[0] != '\0') std::fprintf(file.get(), "[%s]\n", section->name);
    for (const profile_key *entry = section->first_key; entry != nullptr; entry = entry->next) {
      std::fprintf(file.get(), "%s=%s\n", entry->key, entry->value);
    }
  }
}

const char *GetProfileStringPrivate(const profile_section *profile, const char *section,
                                    const char *key, int *found_flag) {
  if (found_flag != nullptr) *found_flag = 0;
  if (key == nullptr) return nullptr;
  const profile_section *const holder =
      find_section(const_cast<profile_section *>(profile), section == nullptr ? "" : section);
  const profile_key *const entry = holder == nullptr ? nullptr : find_key(holder, key);
  if (entry == nullptr) return nullptr;
  if (found_flag != nullptr) *found_flag = 1;
  return entry->value;
}

void WriteProfileString(profile_section *profile, const char *section, const char *key,
                        const char *value) {
  profile_section *const holder = find_section(profile, section);
  // The section is not added (meant, see confile.h).
  if (holder == nullptr) return;
  char kept_key[kProfileKeyMax + 1];
  std::snprintf(kept_key, sizeof kept_key, "%s", key);
  profile_key *entry = find_key(holder, kept_key);
  if (entry == nullptr) {
    entry = new_key(kept_key, cut(value, kProfileValueMax));
    if (entry == nullptr) end_without_memory();
    // At the front (meant): what was set comes before what was loaded.
    entry->next = holder->first_key;
    holder->first_key = entry;
    return;
  }
  // `value` may be the stored text itself.
  char *const old_value = entry->value;
  entry->value = copy_text(cut(value, kProfileValueMax));
  if (entry->value == nullptr) end_without_memory();
  kfree_dbg(old_value);
}

void FreeProfile(profile_section *profile) {
  while (profile != nullptr) {
    while (profile->first_key != nullptr) {
      profile_key *const entry = profile->first_key;
      profile->first_key = entry->next;
      kfree_dbg(entry->key);
      kfree_dbg(entry->value);
      kfree_dbg(entry);
    }
    profile_section *const next = profile->next;
    kfree_dbg(profile->name);
    kfree_dbg(profile);
    profile = next;
  }
}
