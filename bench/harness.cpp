// Processors, child processes and the reference server of the end-to-end benches.
#include "bench/harness.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace bench {

namespace {

constexpr size_t block_bytes = size_t{1} << 20;

// Every Linux kernel has it and lets every user choose it.
std::string congestion = "reno";

void pin(int cpu) {
  if (cpu == any_cpu) return;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<size_t>(cpu), &set);
  sched_setaffinity(0, sizeof set, &set);
}

std::string read_all(int fd) {
  std::string text;
  char piece[4096];
  for (ssize_t n; (n = read(fd, piece, sizeof piece)) > 0;)
    text.append(piece, static_cast<size_t>(n));
  close(fd);
  return text;
}

void write_all(int fd, const std::string &text) {
  if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(1);
}

figures parse(const std::string &text) {
  figures found;
  const char *at = text.c_str();
  char name[64];
  double value = 0;
  for (int used = 0; std::sscanf(at, "%63s %lf\n%n", name, &value, &used) == 2; at += used)
    found[name] = value;
  return found;
}

}  // namespace

double cpu_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double resident_bytes() {
  long total = 0, resident = 0;
  if (std::FILE *file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%ld %ld", &total, &resident) != 2) resident = 0;
    std::fclose(file);
  }
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

figures in_child(int cpu, const std::function<figures()> &measure) {
  int pipe_ends[2];
  if (pipe(pipe_ends) != 0) return {};
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    close(pipe_ends[0]);
    pin(cpu);
    std::string text;
    for (const auto &[name, value] : measure()) {
      char line[128];
      std::snprintf(line, sizeof line, "%s %.17g\n", name.c_str(), value);
      text += line;
    }
    write_all(pipe_ends[1], text);
    _exit(0);
  }
  close(pipe_ends[1]);
  const std::string text = read_all(pipe_ends[0]);
  int status = 0;
  if (child > 0) waitpid(child, &status, 0);
  return child > 0 && status == 0 ? parse(text) : figures{};
}

figures medians(const std::vector<figures> &runs) {
  std::map<std::string, std::vector<double>> values;
  for (const figures &run : runs) {
    for (const auto &[name, value] : run) values[name].push_back(value);
  }
  figures result;
  for (auto &[name, all] : values) {
    const auto middle = all.begin() + static_cast<ptrdiff_t>(all.size() / 2);
    std::nth_element(all.begin(), middle, all.end());
    result[name] = *middle;
  }
  return result;
}

refserver::server_options plain_server(int nodes) {
  refserver::server_options options;
  options.nodes = nodes;
  options.keep_log = false;
  options.check_auth = false;
  options.congestion = congestion;
  return options;
}

void set_congestion(const std::string &name) {
  congestion = name;
}

served_file::served_file(int cpu, uint64_t size, refserver::server_options options) : size_(size) {
  const auto add = [size](refserver::media_server &server) {
    std::string block(block_bytes, '\0');
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 31 + i / 4096);
    return server.add_repeated("film.bin", std::move(block), size);
  };
  start(cpu, add, options);
}

served_file::served_file(int cpu, const std::string &path, refserver::server_options options) {
  struct stat info {};
  if (stat(path.c_str(), &info) == 0) size_ = static_cast<uint64_t>(info.st_size);
  const auto add = [path](refserver::media_server &server) {
    refserver::file_id id{};
    if (server.add_file(path, &id)) server.add_index(id);
    return id;
  };
  start(cpu, add, options);
}

void served_file::start(int cpu,
                        const std::function<refserver::file_id(refserver::media_server &)> &add,
                        const refserver::server_options &options) {
  int life[2], word[2];
  if (pipe(life) != 0 || pipe(word) != 0) return;
  std::fflush(stdout);
  child_ = fork();
  if (child_ == 0) {
    close(life[1]);
    close(word[0]);
    pin(cpu);
    refserver::media_server server(options);
    const refserver::file_id id = add(server);
    if (!server.start()) _exit(1);
    std::string text = server.url(id) + "\n";
    text.append(reinterpret_cast<const char *>(id.data()), id.size());
    for (int node = 0; node < options.nodes; ++node) {
      const uint16_t port = server.port(node);
      text.append(reinterpret_cast<const char *>(&port), sizeof port);
    }
    write_all(word[1], text);
    close(word[1]);
    char end;
    while (read(life[0], &end, 1) > 0) {
    }
    _exit(0);
  }
  close(life[0]);
  close(word[1]);
  life_ = life[1];
  const std::string text = read_all(word[0]);
  const size_t line = text.find('\n');
  if (line == std::string::npos) return;
  url_ = text.substr(0, line);
  std::memcpy(id_.data(), text.data() + line + 1, id_.size());
  ports_.resize((text.size() - line - 1 - id_.size()) / sizeof(uint16_t));
  std::memcpy(ports_.data(), text.data() + line + 1 + id_.size(), ports_.size() * sizeof(uint16_t));
}

served_file::~served_file() {
  close(life_);
  if (child_ > 0) waitpid(child_, nullptr, 0);
}

}  // namespace bench
