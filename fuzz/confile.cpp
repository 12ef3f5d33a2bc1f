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

#include "adif/confile.h"
#include "adif/profile.h"
#include "require.h"

namespace {

using Profile =
    std::unique_ptr<profile_section, decltype([](profile_section *p) { FreeProfile(p); })>;
using Texts = std::vector<std::string>;

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
      require((value != nullptr) == (found != 0));
      if (s == profile) require(found == 1);
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
    require(pread(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    again.reset(ParseProfile(text.data(), static_cast<int64_t>(text.size()), "fuzz"));
  }
  close(fd);
  require(again != nullptr && flatten(again.get()) == flatten(profile));
}

// What the getters make of a text stays within their types; what is set is got.
void check_values(conf_mgmt *conf, const char *section, const char *key) {
  const std::string text = conf_get_string(conf, section, key);
  const int32_t number = conf_get_int(conf, section, key);
  const uint32_t all = conf_get_ulong(conf, section, key);
  if (number > 0) require(all >= static_cast<uint32_t>(number));
  const uint32_t hex = conf_get_hexlong(conf, section, key);
  require(conf_get_bool(conf, section, key) <= 1);
  const double real = conf_get_double(conf, section, key);
  conf_set_int(conf, section, key, number);
  require(conf_get_int(conf, section, key) == number);
  conf_set_ulong(conf, section, key, all);
  require(conf_get_ulong(conf, section, key) == all);
  conf_set_hexlong(conf, section, key, hex);
  require(conf_get_hexlong(conf, section, key) == hex);
  conf_set_double(conf, section, key, number);
  require(conf_get_double(conf, section, key) == number);
  conf_set_double(conf, section, key, real);  // of up to 309 digits
  conf_set_bool(conf, section, key, 7);
  require(conf_get_bool(conf, section, key) == 1);
  conf_set_string(conf, section, key, text.c_str());
  require(text == conf_get_string(conf, section, key));
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

// Malformed input is reported on standard output, which is not wanted here.
const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  require(quiet);
  const Handle conf(conf_mgmt_init(nullptr));
  conf->profile =
      ParseProfile(reinterpret_cast<const char *>(data), static_cast<int64_t>(size), "fuzz");
  profile_section *const profile = conf->profile;
  if (profile == nullptr) return 0;
  require(profile->name[0] == '\0');
  check_found(profile);
  if (!ambiguous(profile)) check_round_trip(profile, size % 16 == 0);
  check_values(conf.get());
  for (const char *value : {"another", "a value"}) WriteProfileString(profile, "", "a key", value);
  require(std::string(profile->first_key->key) == "a key" ||
          GetProfileStringPrivate(profile, nullptr, "a key", nullptr) != nullptr);
  return 0;
}
