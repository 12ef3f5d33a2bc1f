// The configuration handle and its typed getters and setters. See confile.h.
#include "adif/confile.h"

#include <strings.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "adif/kalloc.h"
#include "adif/profile.h"

namespace {

constexpr uint32_t kAllBits = UINT32_MAX;
constexpr uint32_t kUlongMissing = 16777215;
constexpr uint8_t kBoolMissing = 255;

char *copy_path(const char *path) {
  const auto size = static_cast<int64_t>(std::strlen(path)) + 1;
  auto *const copy = static_cast<char *>(kalloc_dbg(size));
  if (copy != nullptr) std::memcpy(copy, path, static_cast<size_t>(size));
  return copy;
}

// The same bounds on 32 and 64 bits, whatever a long is.
template <class T>
T bounded(long long value) {
  using limits = std::numeric_limits<T>;
  return static_cast<T>(std::clamp<long long>(value, limits::min(), limits::max()));
}

int32_t to_int(const char *text) {
  return bounded<int32_t>(std::strtoll(text, nullptr, 10));
}

// A negative number keeps its low 32 bits, so that "-1" has all bits set.
uint32_t to_uint(const char *text, int base) {
  const long long value = std::strtoll(text, nullptr, base);
  return value < 0 ? static_cast<uint32_t>(value) : bounded<uint32_t>(value);
}

template <class T, class Convert>
T get(const conf_mgmt *conf, const char *section, const char *key, T no_key, T no_entry,
      Convert convert) {
  if (conf == nullptr || key == nullptr) return no_key;
  const char *const text = GetProfileStringPrivate(conf->profile, section, key, nullptr);
  return text == nullptr ? no_entry : convert(text);
}

template <class T>
int set(conf_mgmt *conf, const char *section, const char *key, const char *format, T value) {
  // The longest double in "%f" has 309 digits before its point.
  char text[std::numeric_limits<double>::max_exponent10 + 16];
  std::snprintf(text, sizeof text, format, value);
  return conf_set_string(conf, section, key, text);
}

bool is_any_of(const char *text, const char *one, const char *other) {
  return strcasecmp(text, one) == 0 || strcasecmp(text, other) == 0;
}

}  // namespace

conf_mgmt *conf_mgmt_init(const char *path) {
  auto *const conf = static_cast<conf_mgmt *>(kzalloc_dbg(sizeof(conf_mgmt)));
  if (conf == nullptr || path == nullptr) return conf;
  // Without memory for the path there is none, and the profile is there all the same.
  conf->path = copy_path(path);
  conf->profile = LoadProfile(path);
  return conf;
}

conf_mgmt *conf_mgmt_try_init(const char *path) {
  bool no_memory;
  profile_section *const profile = TryLoadProfile(path, &no_memory);
  conf_mgmt *const conf = no_memory ? nullptr : conf_mgmt_init(nullptr);
  if (conf == nullptr) {
    FreeProfile(profile);
    return nullptr;
  }
  if (path != nullptr) conf->path = copy_path(path);
  conf->profile = profile;
  return conf;
}

int conf_mgmt_read(conf_mgmt *conf, const char *path) {
  if (conf == nullptr || path == nullptr) return -1;
  // `path` may be the handle's own, or a value of the profile that is about to be freed: from here
  // on only the copy is read.
  char *const old_path = conf->path;
  conf->path = copy_path(path);
  FreeProfile(conf->profile);
  conf->profile = LoadProfile(conf->path);
  kfree_dbg(old_path);
  return conf->profile != nullptr ? 0 : -1;
}

int conf_mgmt_save(conf_mgmt *conf, const char *path) {
  if (conf == nullptr || path == nullptr || conf->profile == nullptr) return -1;
  SaveProfile(path, conf->profile);
  return 0;
}

int conf_mgmt_cleanup(conf_mgmt *conf) {
  if (conf == nullptr) return 0;
  kfree_dbg(conf->path);
  FreeProfile(conf->profile);
  kfree_dbg(conf);
  return 0;
}

const char *conf_get_string(conf_mgmt *conf, const char *section, const char *key) {
  return get<const char *>(conf, section, key, nullptr, nullptr,
                           [](const char *text) { return text; });
}

int32_t conf_get_int(conf_mgmt *conf, const char *section, const char *key) {
  return get<int32_t>(conf, section, key, -1, -1, to_int);
}

uint32_t conf_get_ulong(conf_mgmt *conf, const char *section, const char *key) {
  return get<uint32_t>(conf, section, key, kAllBits, kUlongMissing,
                       [](const char *text) { return to_uint(text, 10); });
}

uint32_t conf_get_hexlong(conf_mgmt *conf, const char *section, const char *key) {
  return get<uint32_t>(conf, section, key, kAllBits, kAllBits,
                       [](const char *text) { return to_uint(text, 16); });
}

double conf_get_double(conf_mgmt *conf, const char *section, const char *key) {
  return get<double>(conf, section, key, -1.0, -1.0,
                     [](const char *text) { return std::atof(text); });
}

uint8_t conf_get_bool(conf_mgmt *conf, const char *section, const char *key) {
  return get<uint8_t>(conf, section, key, kBoolMissing, kBoolMissing, [](const char *text) {
    if (is_any_of(text, "no", "false")) return uint8_t{0};
    return static_cast<uint8_t>(is_any_of(text, "yes", "true") || to_int(text) != 0);
  });
}

int conf_set_string(conf_mgmt *conf, const char *section, const char *key, const char *value) {
  if (conf == nullptr || key == nullptr) return -1;
  // A section that is not there takes nothing, and nobody is told (meant).
  WriteProfileString(conf->profile, section == nullptr ? "" : section, key,
                     value == nullptr ? "" : value);
  return 0;
}

int conf_set_int(conf_mgmt *conf, const char *section, const char *key, int32_t value) {
  return set(conf, section, key, "%" PRId32, value);
}

int conf_set_ulong(conf_mgmt *conf, const char *section, const char *key, uint32_t value) {
  return set(conf, section, key, "%" PRIu32, value);
}

int conf_set_hexlong(conf_mgmt *conf, const char *section, const char *key, uint32_t value) {
  return set(conf, section, key, "%" PRIx32, value);
}

int conf_set_double(conf_mgmt *conf, const char *section, const char *key, double value) {
  return set(conf, section, key, "%f", value);
}

int conf_set_bool(conf_mgmt *conf, const char *section, const char *key, uint8_t value) {
  return set(conf, section, key, "%d", value != 0 ? 1 : 0);
}
