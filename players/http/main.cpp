// c2ms-http: films of the scheme for browsers and every other program that reads HTTP.
#include <getopt.h>
#include <signal.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "serve.h"

namespace {

constexpr const char *usage =
    "usage: c2ms-http [--listen ADDRESS] [--port PORT] [--memory MIB] NAME=URL...\n"
    "Serves the films behind these kesp:// or kedp:// URLs as http://ADDRESS:PORT/NAME, and a "
    "page\n"
    "that plays them at /. ADDRESS: 127.0.0.1 unless given. PORT: 8080 unless given; 0: any.\n"
    "MIB: for all caches, 256 unless given. Names are letters, digits, '.', '-' and '_'.\n";

bool is_name(const std::string &name) {
  return !name.empty() && name != "events" && std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || std::strchr(".-_", c) != nullptr;
  });
}

struct settings {
  std::string address = "127.0.0.1";
  uint16_t port = 8080;
  uint64_t memory_mib = 256;
  std::vector<bridge::film> films{};
};

bool take_films(int argc, char **argv, settings *out) {
  for (int i = optind; i < argc; ++i) {
    const std::string word = argv[i];
    const size_t equals = word.find('=');
    if (equals == word.npos || !is_name(word.substr(0, equals))) return false;
    out->films.push_back({word.substr(0, equals), word.substr(equals + 1)});
  }
  return !out->films.empty();
}

bool take_settings(int argc, char **argv, settings *out) {
  const option options[] = {{"listen", required_argument, nullptr, 'l'},
                            {"port", required_argument, nullptr, 'p'},
                            {"memory", required_argument, nullptr, 'm'},
                            {nullptr, 0, nullptr, 0}};
  for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    if (c == 'l') {
      out->address = optarg;
    } else if (c == 'p') {
      out->port = static_cast<uint16_t>(std::strtoul(optarg, nullptr, 10));
    } else if (c == 'm') {
      out->memory_mib = std::clamp(std::strtoul(optarg, nullptr, 10), 8UL, 1024UL);
    } else {
      return false;
    }
  }
  return take_films(argc, argv, out);
}

}  // namespace

int main(int argc, char **argv) {
  settings wanted;
  if (!take_settings(argc, argv, &wanted)) {
    std::fputs(usage, stderr);
    return 2;
  }
  // Taken by sigtimedwait alone; every thread made from here on has them blocked, too.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  signal(SIGPIPE, SIG_IGN);

  bridge::Films films(wanted.films, wanted.memory_mib << 20);
  if (!films.ready()) return std::fputs("c2ms-http: the library cannot start\n", stderr), 1;
  {
    const bridge::Server server(films, wanted.address, wanted.port);
    if (!server.runs()) {
      std::fprintf(stderr, "c2ms-http: cannot listen on %s:%u\n", wanted.address.c_str(),
                   wanted.port);
      return 1;
    }
    std::printf("http://%s:%u/\n", wanted.address.c_str(), server.port());
    std::fflush(stdout);
    const timespec pause{0, 100'000'000};
    while (sigtimedwait(&ends, nullptr, &pause) < 0) films.tidy();
  }
  return 0;
}
