// The outcome of one run of c2ms-get, written as messages, a summary or a JSON object.
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
  std::string name;  // as the server sent it: any bytes
  uint8_t type = 0;
  uint64_t media_size = 0;
  uint64_t offset = 0;
  uint64_t length = 0;    // wanted
  uint64_t received = 0;  // written to the output
  double open_s = 0;      // until the media was described
  double fetch_s = 0;     // from then on
  bool indexed = false;   // --index was given and the media has an index
  int32_t index_code = 0;
  double index_s = 0;          // until the index was open; part of fetch_s
  uint32_t index_fetched = 0;  // bytes of the index file
  uint32_t index_size = 0;     // bytes of the open index
  uint64_t index_saved = 0;    // bytes of the media that the index made unnecessary to fetch
  std::string sha256;          // of the bytes written, if --verify was given
  bool verified = false;
  c2ms_stats stats{};  // at the end; struct_size 0: no session
  int signal = 0;      // that ended the run; 0: none
  int32_t code = 0;    // of the library, when it failed
  std::string error;   // empty: none
};

/// Records a failure of the library: the code and its text. The first failure is kept.
void fail(Report *report, int32_t code);
/// Records a failure of the program itself. The first failure is kept.
void fail(Report *report, const std::string &error);

/// The exit status: 0 when every byte arrived and nothing failed, 128 plus the number of the signal
/// that ended the run, else 1.
int exit_status(const Report &report);

/// Writes to standard error "c2ms-get: User unauthorized (-1008)" and which bytes were kept;
/// nothing after success.
void print_error(const Report &report);
/// Writes one line to standard error: amount, time, speed.
void print_summary(const Report &report);
/// Writes one JSON object and a line feed. Bytes of names that are not UTF-8 appear as U+0080 to
/// U+00FF.
void print_json(const Report &report, FILE *out);

}  // namespace get
