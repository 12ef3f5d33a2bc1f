// Reads the command line of c2ms-get.
#include "tools/c2ms-get-options.h"

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>

#ifndef C2MS_GET_VERSION
#define C2MS_GET_VERSION "unknown"
#endif

namespace get {
namespace {

constexpr size_t kUrlMax = 511;  // the library cuts off what is longer
constexpr size_t kHostMax = 63;
constexpr size_t kConfMax = 63;
constexpr size_t kSha256Digits = 64;

constexpr char kHelp[] =
    "Usage: c2ms-get [options] URL\n"
    "Fetches a media file, or a part of it, from a C2MS service.\n"
    "\n"
    "  URL  kesp://HOST[:PORT]/NAME?fid=HEX;auth=HEX;stamp=N;keyid=N (quote it); kedp:// likewise\n"
    "\n"
    "  -o, --output FILE   write there; - is standard output. Without it the URL's last part\n"
    "                      names the file, which must not exist yet\n"
    "      --offset N      begin at this byte (N may end in K, M, G or T: powers of 1024)\n"
    "      --length N      fetch this many bytes instead of all that follow\n"
    "      --pack-size N   cut the cache into packs of about N bytes (default: it chooses)\n"
    "      --mem N         memory for pieces on their way (32M; at least 8M)\n"
    "      --conf FILE     configuration file of the library\n"
    "      --entry HOST    ask this entry server (HOST[:PORT]) instead of the URL's\n"
    "      --timeout S     give up after S seconds without a byte (60; 0: never)\n"
    "      --verify HEX    compare the SHA-256 of what arrived\n"
    "      --index         open the media's separate index first, if it has one\n"
    "      --stats         show the session's figures on standard error: a live line on a "
    "terminal,\n"
    "                      else a line a second; all of them at the end\n"
    "      --trace FILE    write what happened as a trace (Chrome trace-event format)\n"
    "      --timeline FILE write a picture of the play (SVG)\n"
    "      --json          report the outcome as one JSON object on standard output, or on\n"
    "                      standard error with -o -\n"
    "      --dump          write the session's inside to standard error at the end\n"
    "      --verbose       write the library's diagnostics to standard error\n"
    "      --help, --version\n"
    "\n"
    "Exit status: 0 every byte arrived (and the hash matches), 1 something failed, 2 wrong\n"
    "options, 130 interrupted (143 terminated): what had arrived is kept.\n";

enum Id : int {
  kOffset = 256,
  kLength,
  kPackSize,
  kMem,
  kConf,
  kEntry,
  kTimeout,
  kVerify,
  kIndex,
  kStats,
  kTrace,
  kTimeline,
  kJson,
  kDump,
  kVerbose,
  kHelpId,
  kVersion,
};

constexpr option kLong[] = {
    {"output", required_argument, nullptr, 'o'},
    {"offset", required_argument, nullptr, kOffset},
    {"length", required_argument, nullptr, kLength},
    {"pack-size", required_argument, nullptr, kPackSize},
    {"mem", required_argument, nullptr, kMem},
    {"conf", required_argument, nullptr, kConf},
    {"entry", required_argument, nullptr, kEntry},
    {"timeout", required_argument, nullptr, kTimeout},
    {"verify", required_argument, nullptr, kVerify},
    {"index", no_argument, nullptr, kIndex},
    {"stats", no_argument, nullptr, kStats},
    {"trace", required_argument, nullptr, kTrace},
    {"timeline", required_argument, nullptr, kTimeline},
    {"json", no_argument, nullptr, kJson},
    {"dump", no_argument, nullptr, kDump},
    {"verbose", no_argument, nullptr, kVerbose},
    {"help", no_argument, nullptr, kHelpId},
    {"version", no_argument, nullptr, kVersion},
    {nullptr, 0, nullptr, 0},
};

Parsed wrong(const std::string &what) {
  std::fprintf(stderr, "c2ms-get: %s (try --help)\n", what.c_str());
  return Parsed::wrong;
}

bool parse_int(const std::string &text, uint64_t low, uint64_t high, int32_t *value) {
  uint64_t wide = 0;
  if (!parse_bytes(text, &wide) || wide < low || wide > high) return false;
  *value = static_cast<int32_t>(wide);
  return true;
}

bool parse_digest(const std::string &text, std::string *digest) {
  const auto hex = [](unsigned char c) { return std::isxdigit(c) != 0; };
  if (text.size() != kSha256Digits || !std::all_of(text.begin(), text.end(), hex)) return false;
  digest->clear();
  for (const unsigned char c : text) digest->push_back(static_cast<char>(std::tolower(c)));
  return true;
}

/// Takes one option. Returns "", or a message about its argument.
std::string take(int id, const std::string &value, Options *options, std::string *entry) {
  switch (id) {
    case 'o':
      options->output = value;
      return value.empty() ? "-o wants a file name or -" : "";
    case kOffset:
      return parse_bytes(value, &options->offset) ? "" : "--offset wants a count of bytes";
    case kLength:
      return parse_bytes(value, &options->length) ? "" : "--length wants a count of bytes";
    case kPackSize:
      return parse_int(value, 4096, 64 << 20, &options->pack_size) ? ""
                                                                   : "--pack-size wants 4K to 64M";
    case kMem:
      return parse_int(value, 8 << 20, 1 << 30, &options->mem_size) ? "" : "--mem wants 8M to 1G";
    case kTimeout:
      return parse_int(value, 0, 86400, &options->timeout_s) ? ""
                                                             : "--timeout wants 0 to 86400 seconds";
    case kVerify:
      return parse_digest(value, &options->verify) ? "" : "--verify wants 64 hexadecimal digits";
    case kConf:
      options->conf = value;
      if (value.size() > kConfMax) return "--conf takes a path of at most 63 characters";
      return access(value.c_str(), R_OK) == 0 ? "" : "cannot read " + value;
    case kEntry:
      *entry = value;
      if (value.find_first_of("/? ") != std::string::npos) return "--entry wants HOST[:PORT]";
      return value.empty() || value.find(':') == 0 ? "--entry wants HOST[:PORT]" : "";
    case kIndex:
      options->index = true;
      return "";
    case kStats:
      options->stats = true;
      return "";
    case kTrace:
      options->trace = value;
      return value.empty() ? "--trace wants a file name" : "";
    case kTimeline:
      options->timeline = value;
      return value.empty() ? "--timeline wants a file name" : "";
    case kJson:
      options->json = true;
      return "";
    case kDump:
      options->dump = true;
      return "";
    case kVerbose:
      options->verbose = true;
      return "";
    default:
      return "unknown option";
  }
}

/// The option that getopt_long has just refused: a long one, or a letter, perhaps one of several.
std::string refused_option(char **argv) {
  const bool letter = optopt > 0 && optopt < kOffset;
  return letter ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
}

/// Takes the URL and the settings that depend on it. Returns "", or a message.
std::string take_url(const std::string &url, const std::string &entry, Options *options) {
  options->url = entry.empty() ? url : with_host(url, entry);
  if (options->url.empty()) return "--entry needs a URL with a scheme (kesp:// or kedp://)";
  if (options->url.size() > kUrlMax) return "the URL is longer than 511 characters";
  const size_t host = options->url.find("://");
  if (host != std::string::npos) {
    const size_t end = options->url.find_first_of(":/", host + 3);
    if (std::min(end, options->url.size()) - host - 3 > kHostMax) {
      return "the host name is longer than 63 characters";
    }
  }
  if (!options->output.empty()) return "";
  options->output = name_in(url);
  options->named_by_url = true;
  return options->output.empty() ? "the URL names no file: give -o FILE" : "";
}

}  // namespace

bool parse_bytes(const std::string &text, uint64_t *value) {
  uint64_t number = 0;
  const char *const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || end - rest > 1) return false;
  unsigned shift = 0;
  if (rest != end) {
    static constexpr std::string_view units = "KMGT";
    const size_t unit = units.find(static_cast<char>(std::toupper(static_cast<uint8_t>(*rest))));
    if (unit == std::string_view::npos) return false;
    shift = 10 * (static_cast<unsigned>(unit) + 1);
  }
  if (number > UINT64_MAX >> shift) return false;
  *value = number << shift;
  return true;
}

std::string with_host(const std::string &url, const std::string &host) {
  const size_t scheme = url.find("://");
  if (scheme == std::string::npos) return "";
  const size_t start = scheme + 3;
  const size_t path = std::min(url.find('/', start), url.size());
  return url.substr(0, start) + host + url.substr(path);
}

std::string name_in(const std::string &url) {
  const size_t scheme = url.find("://");
  const size_t path = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
  if (path == std::string::npos) return "";
  const std::string whole = url.substr(path, url.find('?', path) - path);
  const std::string name = whole.substr(whole.rfind('/') + 1);
  return name == "." || name == ".." ? "" : name;
}

Parsed parse_options(int argc, char **argv, Options *options) {
  std::string entry;
  opterr = 0;  // this file prints its own messages
  for (;;) {
    const int id = getopt_long(argc, argv, ":o:", kLong, nullptr);
    if (id == -1) break;
    if (id == ':') return wrong(std::string(argv[optind - 1]) + " wants a value");
    if (id == '?') return wrong("unknown option " + refused_option(argv));
    if (id == kHelpId) {
      std::fputs(kHelp, stdout);
      return Parsed::done;
    }
    if (id == kVersion) {
      std::puts("c2ms-get " C2MS_GET_VERSION);
      return Parsed::done;
    }
    const std::string problem = take(id, optarg ? optarg : "", options, &entry);
    if (!problem.empty()) return wrong(problem);
  }
  if (optind >= argc) return wrong("no URL given");
  if (optind + 1 < argc) return wrong(std::string("one URL only, not also ") + argv[optind + 1]);
  const std::string problem = take_url(argv[optind], entry, options);
  return problem.empty() ? Parsed::run : wrong(problem);
}

}  // namespace get
