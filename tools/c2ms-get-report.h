// The outcome of one run of c2ms-get and its forms: messages, a summary and a JSON object.
#pragma once

#include <c2ms.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace get {

struct Report {
  std::string url;
  std::string output;
  std::string fid;   // 32 hexadecimal digits, empty before the open
  std::string name;  // as the server gave it, any bytes
  uint8_t type = 0;
  uint64_t media_size = 0;
  uint64_t offset = 0;
  uint64_t length = 0;    // wanted
  uint64_t received = 0;  // written to the output
  double open_s = 0;      // until the media was described
  double fetch_s = 0;     // from then on
  bool indexed = false;   // the index was asked for, and the media has one
  int32_t index_code = 0;
  double index_s = 0;          // until it was open, part of fetch_s
  uint32_t index_fetched = 0;  // bytes of the index file
  uint32_t index_size = 0;     // bytes of the open index
  uint64_t index_saved = 0;    // bytes of the media that need not be fetched
  std::string sha256;          // of what was written, when a digest was to be compared
  bool verified = false;
  c2ms_stats stats{};  // at the end; struct_size 0: no session
  int signal = 0;      // that ended the run
  int32_t code = 0;    // the library's, when it failed
  std::string error;   // empty: none
};

/// Notes a failure of the library: the code and its text. A first failure stays.
void fail(Report *report, int32_t code);
/// Notes a failure of the program's own. A first failure stays.
void fail(Report *report, const std::string &error);

/// 0 when every byte arrived and nothing failed, 128 and the signal's number when one ended the
/// run, else 1.
int exit_status(const Report &report);

/// "c2ms-get: User unauthorized (-1008)", and a hint at what was kept, to standard error; nothing
/// after success.
void print_error(const Report &report);
/// One line to standard error: amount, time, speed.
void print_summary(const Report &report);
/// One JSON object and a line feed. Bytes of names that are not UTF-8 appear as U+0080 to U+00FF.
void print_json(const Report &report, FILE *out);

}  // namespace get
