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

void check_round_trip(const profile_section *profile) {
  const int fd = memfd_create("conf", MFD_CLOEXEC);
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  SaveProfile(path.c_str(), profile);
  const Profile again(LoadProfile(path.c_str()));
  close(fd);
  expect(again != nullptr && flatten(again.get()) == flatten(profile), "saved is loaded");
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
  static const bool missed = misses_nothing();
  if (!quiet || !missed) std::abort();
  const Profile profile(
      ParseProfile(reinterpret_cast<const char *>(data), static_cast<int64_t>(size), "fuzz"));
  if (profile == nullptr) return 0;
  expect(profile->name[0] == '\0', "the first section has no name");
  check_found(profile.get());
  if (!ambiguous(profile.get())) check_round_trip(profile.get());
  for (const char *value : {"another", "a value"})
    WriteProfileString(profile.get(), "", "a key", value);
  expect(std::string(profile->first_key->key) == "a key" ||
             GetProfileStringPrivate(profile.get(), nullptr, "a key", nullptr) != nullptr,
         "what was set is there");
  return 0;
}
