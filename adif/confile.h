// Configuration files ("profiles"): named sections of key/value entries, read whole and changed in
// memory. The library's management reads its configuration file through the handle of this header;
// the line routines and the profile layer beneath it are in adif/profile.h.
//
// A handle is used by one thread at a time. Section names and keys are compared without regard to
// case (ASCII); the first match in file order counts. A null section is the unnamed one, which
// holds the entries before the first header. A missing or unreadable file is an empty profile; a
// malformed line makes the whole load fail, and the handle is then without a profile: every key is
// missing and every set is lost.
#pragma once

#include <cstdint>

struct profile_section;

struct conf_mgmt {
  char *path;                ///< copy of the name loaded from, or null
  profile_section *profile;  ///< or null
};

/// A handle, with `path` loaded; null is no path and no profile. End it with conf_mgmt_cleanup().
/// Null only when memory has run out.
[[nodiscard]] conf_mgmt *conf_mgmt_init(const char *path);
/// The same for programs that must not end: null without memory for the handle or the profile, of
/// which conf_mgmt_init() ends the process with status 1.
[[nodiscard]] conf_mgmt *conf_mgmt_try_init(const char *path);
/// Replaces path and profile by those of another file. 0; -1 when no profile resulted or an
/// argument is null.
int conf_mgmt_read(conf_mgmt *conf, const char *path);
/// Writes the profile to `path`, replacing the file; comments and spacing are not kept. -1 when an
/// argument or the profile is null, else 0, also when the file couldn't be written.
int conf_mgmt_save(conf_mgmt *conf, const char *path);
/// Frees everything; texts handed out die with it. 0; null is accepted.
int conf_mgmt_cleanup(conf_mgmt *conf);

// Getters. The odd results for a missing key, which differ from one to the next, are meant: a
// caller tells "missing" by them alone. Numbers beyond a type's range give its nearest bound.

/// The stored text itself, valid until conf_mgmt_read(), conf_mgmt_cleanup() or a set of this key.
/// Null when the handle, the key or the entry is missing.
const char *conf_get_string(conf_mgmt *conf, const char *section, const char *key);
/// Decimal. -1 when the handle, the key or the entry is missing.
int32_t conf_get_int(conf_mgmt *conf, const char *section, const char *key);
/// Decimal. All bits set (-1) without a handle or key, 16777215 when the entry is missing.
uint32_t conf_get_ulong(conf_mgmt *conf, const char *section, const char *key);
/// Hexadecimal, with or without "0x". All bits set when the handle, the key or the entry is
/// missing.
uint32_t conf_get_hexlong(conf_mgmt *conf, const char *section, const char *key);
/// As atof(3). -1.0 when the handle, the key or the entry is missing.
double conf_get_double(conf_mgmt *conf, const char *section, const char *key);
/// "no" and "false" are 0, "yes" and "true" 1 in any case; else 1 for a number that is not 0, and
/// 0. 255 when the handle, the key or the entry is missing.
uint8_t conf_get_bool(conf_mgmt *conf, const char *section, const char *key);

// Setters change the profile in memory only. 0; -1 when the handle or the key is null. An existing
// key keeps its place, a new one goes to the front of its section. A key of a section that the
// profile doesn't have is lost without notice, and 0 all the same. Kept for compatibility: a
// program can't add sections. Keys are cut at 256 characters, values at 2048; a null value is the
// empty text.

int conf_set_string(conf_mgmt *conf, const char *section, const char *key, const char *value);
int conf_set_int(conf_mgmt *conf, const char *section, const char *key, int32_t value);
int conf_set_ulong(conf_mgmt *conf, const char *section, const char *key, uint32_t value);
int conf_set_hexlong(conf_mgmt *conf, const char *section, const char *key, uint32_t value);
int conf_set_double(conf_mgmt *conf, const char *section, const char *key, double value);
int conf_set_bool(conf_mgmt *conf, const char *section, const char *key, uint8_t value);
