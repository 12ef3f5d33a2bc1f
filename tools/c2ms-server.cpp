// c2ms-server: serves files or generated content to players on this machine, for trials and
// scripts. It prints a URL for each file, and at the end the totals of its servers.
#include <arpa/inet.h>
#include <getopt.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "testing/media_server.h"
#include "testing/report_service.h"

namespace {

using namespace refserver;

struct generated_file {
  std::string name;
  uint64_t size;
};

struct settings {
  server_options server;
  std::vector<std::string> paths;
  std::vector<generated_file> generated;
  std::vector<std::pair<int, fault>> faults;  ///< each with the node that commits it
  std::vector<double> rates;
  std::vector<int> delays;
  bool index = false;
  report_options reporting;
};

void print_help() {
  std::printf(
      "usage: c2ms-server [options] FILE|DIR...\n"
      "Serves media files on the loopback interface and prints a URL for each.\n\n"
      "  --port P            port of the entry server, nodes follow (default: any free ports)\n"
      "  --nodes N           media nodes, 0 to 100 (default 4)\n"
      "  --spread            nodes at 127.0.0.2, 127.0.0.3, ... on the entry server's port\n"
      "  --listen A[,A...]   listen at this address instead of the loopback's, or at one for the\n"
      "                      entry server and one for each node, all on the entry server's port\n"
      "  --rate R[,R...]     bytes per second of node 0, 1, ...; k, M and G multiply by 1000s;\n"
      "                      the last one holds for the nodes that follow; 0: no limit\n"
      "  --delay MS[,MS...]  milliseconds before each response of node 0, 1, ...\n"
      "  --encipher          encipher server lists and descriptions\n"
      "  --any-auth          do not check auth, stamp and keyid of requests\n"
      "  --generated NAME:SIZE  a file of generated content; sizes take k, M and G too\n"
      "  --index             make the separate index of every MP4 file, so that players need not\n"
      "                      wait for its moov box\n"
      "  --fault KIND[:N][,value=V][,ms=M][,from=K][,on=list|desc|media][,node=I|entry]\n"
      "                      misbehave N times (default: always), from the K-th request on, at\n"
      "                      node I (default: the entry for faults of lists, else every node);\n"
      "                      may be repeated\n"
      "  --agent             be the authorisation agent at 127.0.0.1, port 3528, and print each\n"
      "                      message as a line of JSON\n"
      "  --report ADDR       the same as the report server at ADDR (127.x.y.z), port 3528;\n"
      "                      with either of the two no file is needed\n"
      "  --help              this text\n\n"
      "Kinds of faults:\n");
  for (const fault_info &row : fault_table())
    std::printf("  %-16.*s %.*s\n", static_cast<int>(row.name.size()), row.name.data(),
                static_cast<int>(row.help.size()), row.help.data());
}

[[noreturn]] void usage_error(const std::string &what) {
  std::fprintf(stderr, "c2ms-server: %s (--help tells more)\n", what.c_str());
  std::exit(2);
}

// Reads a number of at most `limit`, perhaps with k, M or G behind it.
uint64_t number(std::string_view text, uint64_t limit, const char *option) {
  uint64_t value = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
  uint64_t factor = 1;
  if (unit == "k")
    factor = 1000;
  else if (unit == "M")
    factor = 1'000'000;
  else if (unit == "G")
    factor = 1'000'000'000;
  else if (!unit.empty())
    factor = 0;
  if (failure != std::errc() || factor == 0 || value > limit / factor)
    usage_error(std::string(option) + ": cannot take '" + std::string(text) + "'");
  return value * factor;
}

template <class Number>
std::vector<Number> numbers(std::string_view text, uint64_t limit, const char *option) {
  std::vector<Number> out;
  for (size_t at = 0; at <= text.size();) {
    const size_t comma = std::min(text.find(',', at), text.size());
    out.push_back(static_cast<Number>(number(text.substr(at, comma - at), limit, option)));
    at = comma + 1;
  }
  return out;
}

// Reads addresses separated by commas.
std::vector<std::string> parse_addresses(std::string_view text) {
  std::vector<std::string> out;
  for (size_t at = 0; at <= text.size();) {
    const size_t comma = std::min(text.find(',', at), text.size());
    out.emplace_back(text.substr(at, comma - at));
    in_addr address{};
    if (inet_pton(AF_INET, out.back().c_str(), &address) != 1)
      usage_error("--listen: '" + out.back() + "' is no address");
    at = comma + 1;
  }
  return out;
}

generated_file parse_generated(std::string_view text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0)
    usage_error("--generated: '" + std::string(text) + "' is not NAME:SIZE");
  return {std::string(text.substr(0, colon)),
          number(text.substr(colon + 1), UINT64_MAX, "--generated")};
}

std::pair<int, fault> parse_fault(std::string_view text) {
  int node = every_node;
  std::string error;
  const std::optional<fault> order = fault_parse(text, &node, &error);
  if (!order) usage_error("--fault: " + error);
  return {node, *order};
}

bool serves_media(const settings &s) {
  return !s.paths.empty() || !s.generated.empty();
}

bool takes_reports(const settings &s) {
  return !s.reporting.agent.empty() || !s.reporting.report.empty();
}

// The option that getopt_long has just refused: a long one, or a letter, perhaps one of several.
std::string refused_option(char **argv) {
  const bool letter = optopt >= ' ';
  return letter ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
}

settings parse(int argc, char **argv) {
  enum : int {
    port = 1,
    nodes,
    spread,
    listen,
    rate,
    delay,
    encipher,
    any_auth,
    generated,
    agent,
    report,
    index,
    faulty,
    help
  };
  static constexpr option options[] = {
      {"port", required_argument, nullptr, port},
      {"nodes", required_argument, nullptr, nodes},
      {"spread", no_argument, nullptr, spread},
      {"listen", required_argument, nullptr, listen},
      {"rate", required_argument, nullptr, rate},
      {"delay", required_argument, nullptr, delay},
      {"encipher", no_argument, nullptr, encipher},
      {"any-auth", no_argument, nullptr, any_auth},
      {"generated", required_argument, nullptr, generated},
      {"agent", no_argument, nullptr, agent},
      {"report", required_argument, nullptr, report},
      {"index", no_argument, nullptr, index},
      {"fault", required_argument, nullptr, faulty},
      {"help", no_argument, nullptr, help},
      {nullptr, 0, nullptr, 0},
  };
  settings s;
  s.server.keep_log = false;
  opterr = 0;  // this file prints its own messages
  for (int c; (c = getopt_long(argc, argv, ":", options, nullptr)) != -1;) {
    switch (c) {
      case port:
        s.server.port = static_cast<uint16_t>(number(optarg, 65535, "--port"));
        break;
      case nodes:
        s.server.nodes = static_cast<int>(number(optarg, 100, "--nodes"));
        break;
      case spread:
        s.server.spread_addresses = true;
        break;
      case listen:
        s.server.listen = parse_addresses(optarg);
        break;
      case rate:
        s.rates = numbers<double>(optarg, UINT64_MAX, "--rate");
        break;
      case delay:
        s.delays = numbers<int>(optarg, 3'600'000, "--delay");
        break;
      case encipher:
        s.server.encipher = true;
        break;
      case any_auth:
        s.server.check_auth = false;
        break;
      case agent:
        s.reporting.agent = "127.0.0.1";
        break;
      case report:
        if (std::string_view(optarg).substr(0, 4) != "127.")
          usage_error("--report: an address of this machine's loopback is needed");
        s.reporting.report = optarg;
        break;
      case generated:
        s.generated.push_back(parse_generated(optarg));
        break;
      case index:
        s.index = true;
        break;
      case faulty:
        s.faults.push_back(parse_fault(optarg));
        break;
      case help:
        print_help();
        std::exit(0);
      case ':':
        usage_error(std::string(argv[optind - 1]) + " wants a value");
      default:
        usage_error("unknown option " + refused_option(argv));
    }
  }
  s.paths.assign(argv + optind, argv + argc);
  if (!serves_media(s) && !takes_reports(s)) usage_error("no file to serve");
  const size_t addresses = s.server.listen.size();
  if (addresses > 0 && s.server.spread_addresses) usage_error("--spread or --listen, not both");
  if (addresses > 1 && addresses != static_cast<size_t>(s.server.nodes) + 1)
    usage_error("--listen: one address, or one for the entry server and one for each node");
  const bool one_port = s.server.spread_addresses || addresses > 1;
  if (s.server.port != 0 && !one_port && s.server.port + s.server.nodes > 65535)
    usage_error("--port: no room for the nodes' ports above it");
  return s;
}

// Rate and delay of node 0, 1, ...: the last value of a list applies to all further nodes.
void apply_to_nodes(settings &s) {
  s.server.node.resize(static_cast<size_t>(s.server.nodes));
  for (size_t i = 0; i < s.server.node.size(); ++i) {
    node_options &node = s.server.node[i];
    if (!s.rates.empty()) node.rate_bytes_per_s = s.rates[std::min(i, s.rates.size() - 1)];
    if (!s.delays.empty()) node.delay_ms = s.delays[std::min(i, s.delays.size() - 1)];
  }
  for (const auto &[index, order] : s.faults) {
    if (index >= s.server.nodes) usage_error("--fault: no node " + std::to_string(index));
    const bool of_lists = fault_targets(order) == on_srvlist;
    if (index == entry_server || (index == every_node && of_lists))
      s.server.entry.faults.push_back(order);
    for (int i = 0; i < s.server.nodes; ++i)
      if (index == i || (index == every_node && !of_lists))
        s.server.node[static_cast<size_t>(i)].faults.push_back(order);
  }
}

// The files that a path stands for. Of a folder: its regular files in order of name, without those
// of folders inside it.
std::vector<std::string> files_of(const std::string &path) {
  std::error_code failure;
  if (!std::filesystem::is_directory(path, failure)) return {path};
  std::vector<std::string> files;
  for (std::filesystem::directory_iterator at(path, failure), end; !failure && at != end;
       at.increment(failure))
    if (at->is_regular_file(failure)) files.push_back(at->path().string());
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<std::pair<std::string, file_id>> add_all(media_server &server, const settings &s) {
  std::vector<std::pair<std::string, file_id>> added;
  for (const std::string &path : s.paths) {
    for (const std::string &file : files_of(path)) {
      file_id id;
      if (server.add_file(file, &id))
        added.emplace_back(file, id);
      else
        std::fprintf(stderr, "c2ms-server: cannot serve '%s'\n", file.c_str());
    }
  }
  for (const generated_file &file : s.generated)
    added.emplace_back(file.name,
                       server.add_generated(file.name, file.size, type_by_name(file.name)));
  return added;
}

void add_indexes(media_server &server, const std::vector<std::pair<std::string, file_id>> &added) {
  for (const auto &[name, id] : added) {
    if (type_by_name(name) != type_by_name("x.mp4")) continue;
    std::string problem;
    server.add_index(id, &problem);
    if (!problem.empty())
      std::fprintf(stderr, "c2ms-server: no index of '%s': %s\n", name.c_str(), problem.c_str());
  }
}

void print_totals(const media_server &server, int nodes) {
  std::printf("%-8s %-21s %12s %10s %10s %16s\n", "server", "address", "connections", "requests",
              "bad", "media bytes");
  for (int i = entry_server; i < nodes; ++i) {
    const node_totals t = server.totals(i);
    const std::string name = i == entry_server ? "entry" : "node " + std::to_string(i);
    const std::string address = server.address(i) + ":" + std::to_string(server.port(i));
    std::printf("%-8s %-21s %12" PRIu64 " %10" PRIu64 " %10" PRIu64 " %16" PRIu64 "\n",
                name.c_str(), address.c_str(), t.accepted, t.requests, t.bad_requests,
                t.payload_sent);
    for (const fault_info &row : fault_table())
      if (const uint64_t count = server.injected(i, row.kind); count > 0)
        std::printf("         %.*s: %" PRIu64 "\n", static_cast<int>(row.name.size()),
                    row.name.data(), count);
  }
}

}  // namespace

int main(int argc, char **argv) {
  settings s = parse(argc, argv);
  apply_to_nodes(s);
  // These signals are blocked in every thread, so that they only end the wait below.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  s.reporting.on_message = [](const report_message &message) {
    std::printf("%s\n", to_json(message).c_str());
    std::fflush(stdout);
  };
  report_service reports(s.reporting);
  if (!reports.start()) {
    std::fprintf(stderr, "c2ms-server: %s\n", reports.error().c_str());
    return 1;
  }
  media_server server(s.server);
  const auto added = add_all(server, s);
  if (added.empty() && serves_media(s)) {
    std::fprintf(stderr, "c2ms-server: nothing to serve\n");
    return 1;
  }
  if (serves_media(s) && !server.start()) {
    std::fprintf(stderr, "c2ms-server: %s\n", server.error().c_str());
    return 1;
  }
  if (s.index) add_indexes(server, added);
  for (const auto &[name, id] : added) std::printf("%s\n", server.url(id).c_str());
  std::fflush(stdout);
  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  reports.stop();
  server.stop();
  if (serves_media(s)) print_totals(server, s.server.nodes);
  return 0;
}
