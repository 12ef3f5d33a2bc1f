// The command line of c2ms-get. Only its main function calls this.
#pragma once

#include <cstdint>
#include <string>

namespace get {

struct Options {
  std::string url;
  std::string output;         // "-" is standard output
  bool named_by_url = false;  // `output` comes from the URL and must not replace a file
  std::string conf;
  std::string trace, timeline;  // files, or empty
  std::string verify;           // 64 lower-case hexadecimal digits, or empty
  uint64_t offset = 0;
  uint64_t length = UINT64_MAX;  // UINT64_MAX: to the end
  int32_t pack_size = 0;         // 0: the library chooses
  int32_t mem_size = 32 << 20;
  int32_t timeout_s = 60;  // longest time without a byte; 0: never give up
  bool index = false;      // open the media's index first
  bool stats = false;
  bool dump = false;
  bool json = false;
  bool verbose = false;
};

enum class Parsed {
  run,    // `options` is complete
  done,   // help or version was printed: exit 0
  wrong,  // a message was printed on standard error: exit 2
};

/// Reads the command line. Not thread-safe (getopt_long).
Parsed parse_options(int argc, char **argv, Options *options);

/// A count of bytes: decimal digits and an optional K, M, G or T (powers of 1024, either case).
/// False, with `value` unchanged, for anything else and for a number that does not fit.
bool parse_bytes(const std::string &text, uint64_t *value);

/// `url` with its host and port, if any, replaced by `host` (host[:port]); empty for a URL without
/// a scheme.
std::string with_host(const std::string &url, const std::string &host);

/// The last part of the URL's path, without the query: a plain file name, or "".
std::string name_in(const std::string &url);

}  // namespace get
