// Configuration files of any bytes: a profile that loads is found again by its own names, and
// saving and loading it changes nothing.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "adif/check.h"
#include "adif/confile.h"
#include "adif/kalloc.h"
#include "adif/profile.h"

namespace {

using Profile =
    std::unique_ptr<profile_section, decltype([](profile_section *p) { FreeProfile(p); })>;
using Texts = std::vector<std::string>;

void expect(bool holds, const char *text) {
  adif::check(holds, text, "fuzz/confile");
}

Texts flatten(const profile_section *section) {
  Texts texts;
  for (; section != nullptr; section = section->next) {
    texts.push_back(section->name);
    for (const profile_key *k = section->first_key; k != nullptr; k = k->next) {
      texts.push_back(std::string(k->key) + "=" + k->value);
    }
  }
  return texts;
}

// What can't be told from something else once it is written: a later section without a name, and an
// entry that looks like a header.
bool ambiguous(const profile_section *profile) {
  for (const profile_section *s = profile; s != nullptr; s = s->next) {
    if (s != profile && s->name[0] == '\0') return true;
    for (const profile_key *k = s->first_key; k != nullptr; k = k->next) {
      if (k->key[0] == '[') return true;
    }
  }
  return false;
}

void check_found(const profile_section *profile) {
  for (const profile_section *s = profile; s != nullptr; s = s->next) {
    for (const profile_key *k = s->first_key; k != nullptr; k = k->next) {
      int found = 0;
      const char *const value = GetProfileStringPrivate(profile, s->name, k->key, &found);
      // The first of several sections of one name may not have the key.
      expect((value != nullptr) == (found != 0), "the flag tells of the value");
      if (s == profile) expect(found == 1, "keys of the unnamed section are found");
    }
  }
}

void check_round_trip(const profile_section *profile, bool load) {
  const int fd = memfd_create("conf", MFD_CLOEXEC);
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  SaveProfile(path.c_str(), profile);
  Profile again;
  if (load) {  // (loading takes a megabyte at once)
    again.reset(LoadProfile(path.c_str()));
  } else {
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    expect(pread(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()), "read");
    again.reset(ParseProfile(text.data(), static_cast<int64_t>(text.size()), "fuzz"));
  }
  close(fd);
  expect(again != nullptr && flatten(again.get()) == flatten(profile), "saved is loaded");
}

// What the getters make of a text stays within their types; what is set is got.
void check_values(conf_mgmt *conf, const char *section, const char *key) {
  const std::string text = conf_get_string(conf, section, key);
  const int32_t number = conf_get_int(conf, section, key);
  const uint32_t all = conf_get_ulong(conf, section, key);
  if (number > 0) expect(all >= static_cast<uint32_t>(number), "one number");
  const uint32_t hex = conf_get_hexlong(conf, section, key);
  expect(conf_get_bool(conf, section, key) <= 1, "a truth");
  const double real = conf_get_double(conf, section, key);
  conf_set_int(conf, section, key, number);
  expect(conf_get_int(conf, section, key) == number, "int");
  conf_set_ulong(conf, section, key, all);
  expect(conf_get_ulong(conf, section, key) == all, "ulong");
  conf_set_hexlong(conf, section, key, hex);
  expect(conf_get_hexlong(conf, section, key) == hex, "hexlong");
  conf_set_double(conf, section, key, number);
  expect(conf_get_double(conf, section, key) == number, "double");
  conf_set_double(conf, section, key, real);  // of up to 309 digits
  conf_set_bool(conf, section, key, 7);
  expect(conf_get_bool(conf, section, key) == 1, "bool");
  conf_set_string(conf, section, key, text.c_str());
  expect(text == conf_get_string(conf, section, key), "string");
}

void check_values(conf_mgmt *conf) {
  int checked = 0;
  for (const profile_section *s = conf->profile; s != nullptr; s = s->next) {
    for (const profile_key *k = s->first_key; k != nullptr && checked < 8; k = k->next) {
      if (conf_get_string(conf, s->name, k->key) == k->value) {
        check_values(conf, s->name, k->key);
        ++checked;
      }
    }
  }
}

using Handle = std::unique_ptr<conf_mgmt, decltype([](conf_mgmt *c) { conf_mgmt_cleanup(c); })>;

// Without a handle, a key, an entry or memory: each getter's own result.
bool misses_handles() {
  const Handle empty(conf_mgmt_init(nullptr));
  for (conf_mgmt *conf : {static_cast<conf_mgmt *>(nullptr), empty.get()}) {
    const bool handle = conf != nullptr;
    for (const char *key : {static_cast<const char *>(nullptr), "k"}) {
      const bool named = handle && key != nullptr;
      expect(conf_get_string(conf, nullptr, key) == nullptr, "no text");
      expect(conf_get_int(conf, nullptr, key) == -1, "no int");
      expect(conf_get_ulong(conf, nullptr, key) == (named ? 16777215 : UINT32_MAX), "no ulong");
      expect(conf_get_hexlong(conf, "", key) == UINT32_MAX, "no hexlong");
      expect(conf_get_double(conf, "s", key) == -1.0, "no double");
      expect(conf_get_bool(conf, "s", key) == 255, "no bool");
      expect(conf_set_string(conf, nullptr, key, nullptr) == (named ? 0 : -1), "nothing to set");
      expect(conf_set_bool(conf, "s", key, 0) == (named ? 0 : -1), "nothing to set");
    }
    expect(conf_mgmt_save(conf, "/dev/null") == -1, "nothing to save");
    expect(conf_mgmt_save(conf, nullptr) == -1 && conf_mgmt_read(conf, nullptr) == -1, "no path");
  }
  expect(conf_mgmt_read(nullptr, "/") == -1 && conf_mgmt_cleanup(nullptr) == 0, "no handle");
  adif::fail_allocations(1);
  expect(conf_mgmt_init("/proc/none") == nullptr, "no memory for the handle");
  adif::fail_allocations(2);
  const Handle unnamed(conf_mgmt_init("/proc/none"));
  expect(unnamed->path == nullptr && unnamed->profile != nullptr, "no memory for the path");
  expect(conf_mgmt_read(unnamed.get(), "/proc/none") == 0, "read again");
  expect(conf_mgmt_save(unnamed.get(), "/proc/none/there") == 0, "that it wasn't written is kept");
  return true;
}

// No text, no path, nothing to read or to write to: missing, and nothing more.
bool misses_nothing() {
  trim(nullptr);
  expect(LoadProfile(nullptr) == nullptr, "no path");
  for (const char *path : {"/proc/none", "/"}) {
    const Profile empty(LoadProfile(path));
    expect(flatten(empty.get()).size() == 1, "what is no file is an empty profile");
  }
  SaveProfile("/proc/none/there", nullptr);
  const int fd = memfd_create("conf", MFD_CLOEXEC);
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  expect(write(fd, "a line\n", 7) == 7, "written");
  const Handle conf(conf_mgmt_init(nullptr));
  expect(conf_mgmt_read(conf.get(), path.c_str()) == -1 && !conf->profile, "malformed");
  adif::fail_allocations(1);
  const Profile unread(LoadProfile(path.c_str()));
  expect(adif::failed_allocations() == 1 && flatten(unread.get()).size() == 1, "no memory");
  adif::fail_allocations(0);
  expect(ftruncate(fd, kProfileFileMax + 1) == 0, "too long");
  const Profile too_long(LoadProfile(path.c_str()));
  expect(flatten(too_long.get()).size() == 1, "what is too long is an empty profile");
  close(fd);
  char name[kProfileSectionMax + 1] = "x";
  GetSectionName("[", name);
  expect(name[0] == '\0', "no name");
  int found = 9;
  expect(GetProfileStringPrivate(nullptr, "s", nullptr, &found) == nullptr && found == 0, "no key");
  expect(GetProfileStringPrivate(nullptr, nullptr, "k", nullptr) == nullptr, "no profile");
  WriteProfileString(nullptr, "s", "k", "v");
  return true;
}

// Malformed input is reported on standard output, which is not wanted here.
const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool missed = misses_nothing() && misses_handles();
  if (!quiet || !missed) std::abort();
  const Handle conf(conf_mgmt_init(nullptr));
  conf->profile =
      ParseProfile(reinterpret_cast<const char *>(data), static_cast<int64_t>(size), "fuzz");
  profile_section *const profile = conf->profile;
  if (profile == nullptr) return 0;
  expect(profile->name[0] == '\0', "the first section has no name");
  check_found(profile);
  if (!ambiguous(profile)) check_round_trip(profile, size % 16 == 0);
  check_values(conf.get());
  for (const char *value : {"another", "a value"}) WriteProfileString(profile, "", "a key", value);
  expect(std::string(profile->first_key->key) == "a key" ||
             GetProfileStringPrivate(profile, nullptr, "a key", nullptr) != nullptr,
         "what was set is there");
  return 0;
}
