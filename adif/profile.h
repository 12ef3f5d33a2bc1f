// The profile layer under adif/confile.h: a configuration file in memory as a chain of sections,
// and the routines that read its lines.
//
// The file is read in lines of at most 4095 characters (a longer one is read in pieces, each a line
// of its own). A line is trimmed and cut at its first '#', also inside a value. What is left is
// nothing, a header "[name]", an entry "key = value", or malformed. "[net]#c" is a header, but in
// "[net] # c" the blank before '#' stays as the line's last character: malformed. Kept for
// compatibility: a file is refused by every version or by none.
// One thread at a time; texts are bytes that end at a zero.
#pragma once

#include <cstdint>

// Limits, in characters; longer names, keys and values are cut.
inline constexpr int kProfileLineMax = 4095;
inline constexpr int kProfileSectionMax = 512;
inline constexpr int kProfileKeyMax = 256;
inline constexpr int kProfileValueMax = 2048;
/// A file of more bytes counts as unreadable.
inline constexpr int64_t kProfileFileMax = 1024 * 1024;

struct profile_key {
  char *key;
  char *value;
  profile_key *next;
};

struct profile_section {
  char *name;
  profile_key *first_key;
  profile_section *next;
};

/// What AnalysisTextLine() tells a line to be.
inline constexpr unsigned kLineHeader = 0;
inline constexpr unsigned kLineEntry = 1;
inline constexpr unsigned kLineEmpty = 2;
inline constexpr unsigned kLineMalformed = 3;

/// Takes blanks, tabs, CR and LF from both ends, in place, then cuts at the first '#'; blanks
/// before the '#' stay. Null is ignored.
void trim(char *text);
/// Trims the line in place and returns its class.
unsigned AnalysisTextLine(char *line);
/// The name of a header line, trimmed, into `out` of kProfileSectionMax + 1 bytes.
void GetSectionName(const char *line, char *out);
/// Splits an entry line at its first '=', trims both, into buffers of kProfileKeyMax + 1 and
/// kProfileValueMax + 1 bytes.
void GetKeyInfo(const char *line, char *key_out, char *value_out);

/// Loads a file. Its first section is the unnamed one, always there. Anything but a regular file of
/// at most kProfileFileMax bytes is not read, never blocks, and gives an empty profile. Null when a
/// line is malformed (a message goes to standard output) or `path` is null.
[[nodiscard]] profile_section *LoadProfile(const char *path);
/// The same from `length` bytes at `data`, which may hold anything. `path` is for the message.
[[nodiscard]] profile_section *ParseProfile(const char *data, int64_t length, const char *path);
/// The same without an end of the process: without memory null, and true in `*no_memory`.
[[nodiscard]] profile_section *TryLoadProfile(const char *path, bool *no_memory);
[[nodiscard]] profile_section *TryParseProfile(const char *data, int64_t length, const char *path,
                                               bool *no_memory);
/// Writes the profile, replacing the file; the unnamed section comes first, without a header.
/// Nothing is written, and nothing said, when the file can't be opened.
void SaveProfile(const char *path, const profile_section *profile);
/// The value of the first matching key in the first matching section, and 1 in `*found_flag` (which
/// may be null); null and 0 otherwise. A null section is the unnamed one.
const char *GetProfileStringPrivate(const profile_section *profile, const char *section,
                                    const char *key, int *found_flag);
/// Sets a value, as the conf_set_ functions tell: at the front of its section when it is new, lost
/// when the section doesn't exist.
void WriteProfileString(profile_section *profile, const char *section, const char *key,
                        const char *value);
/// Frees all sections and keys; null is ignored.
void FreeProfile(profile_section *profile);
