// Measures other programs on a static HTTP server (nginx, if installed): the same bytes from the
// memory of this machine, processor seconds beside ours. Server on processor 0, client on 1.
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/limit.h"
#include "bench/play.h"
#include "bench/sections.h"

#ifdef BENCH_LIBCURL
#include <curl/curl.h>
#endif

namespace bench {

namespace {

constexpr int client_cpu = 1;
constexpr int ring_bytes = 8 << 20, read_bytes = 256 << 10;

std::vector<char *> arguments(std::vector<std::string> &words) {
  std::vector<char *> list;
  for (std::string &word : words) list.push_back(word.data());
  list.push_back(nullptr);
  return list;
}

pid_t start(int cpu, std::vector<std::string> words) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child != 0) return child;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<size_t>(cpu), &set);
  sched_setaffinity(0, sizeof set, &set);
  const int nowhere = open("/dev/null", O_RDWR);
  dup2(nowhere, 1);
  dup2(nowhere, 2);
  execvp(words[0].c_str(), arguments(words).data());
  _exit(127);
}

// Seconds and processor seconds of a command; empty when it does not exist or fails.
figures run_command(std::vector<std::string> words) {
  const auto begin = steady::now();
  const pid_t child = start(client_cpu, std::move(words));
  int status = 0;
  rusage usage{};
  if (child < 0 || wait4(child, &status, 0, &usage) != child || status != 0) return {};
  const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  return {{"seconds", seconds_since(begin)},
          {"cpu", seconds(usage.ru_utime) + seconds(usage.ru_stime)}};
}

int free_port() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof name;
  bind(fd, reinterpret_cast<sockaddr *>(&name), size);
  getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size);
  close(fd);
  return ntohs(name.sin_port);
}

// A folder in memory with one file, served by nginx on processor 0.
class http_server {
 public:
  explicit http_server(uint64_t size) : port_(free_port()) {
    char name[] = "/dev/shm/c2ms-bench-XXXXXX";
    if (mkdtemp(name) == nullptr) return;
    folder_ = name;
    chmod(name, 0755);
    write_file(size);
    write_configuration();
    child_ = start(0, {"nginx", "-p", folder_, "-c", folder_ + "/nginx.conf"});
    for (int i = 0; i < 100 && !answers(); ++i) usleep(20'000);
  }
  ~http_server() {
    if (child_ > 0) {
      kill(child_, SIGTERM);
      waitpid(child_, nullptr, 0);
    }
    if (folder_.empty()) return;
    const std::string command = "rm -rf '" + folder_ + "'";
    if (std::system(command.c_str()) != 0) std::perror("bench: rm");
  }
  http_server(const http_server &) = delete;
  http_server &operator=(const http_server &) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/film"; }
  const std::string &folder() const { return folder_; }
  bool works() const { return works_; }

 private:
  void write_file(uint64_t size) const {
    std::FILE *file = std::fopen((folder_ + "/film").c_str(), "w");
    const std::vector<char> block(1 << 20, 'x');
    for (uint64_t done = 0; file != nullptr && done < size; done += block.size())
      std::fwrite(block.data(), 1, block.size(), file);
    if (file != nullptr) std::fclose(file);
  }
  void write_configuration() const {
    std::FILE *file = std::fopen((folder_ + "/nginx.conf").c_str(), "w");
    if (file == nullptr) return;
    std::fprintf(
        file,
        "daemon off; worker_processes 1; pid nginx.pid; error_log stderr;\n"
        "events { worker_connections 64; }\n"
        "http { access_log off; sendfile on; tcp_nopush on; keepalive_requests 100000000;\n"
        "client_body_temp_path t; proxy_temp_path t; fastcgi_temp_path t; uwsgi_temp_path "
        "t; scgi_temp_path t;\n"
        "server { listen 127.0.0.1:%d; root %s; } }\n",
        port_, folder_.c_str());
    std::fclose(file);
  }
  bool answers() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<uint16_t>(port_));
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    works_ = connect(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0;
    close(fd);
    return works_;
  }

  int port_;
  std::string folder_;
  pid_t child_ = -1;
  bool works_ = false;
};

// nginx leaves the congestion control to the system; our server does the same here.
refserver::server_options server_like_theirs(int nodes) {
  refserver::server_options options = plain_server(nodes);
  options.congestion.clear();
  return options;
}

#ifdef BENCH_LIBCURL
size_t take(char *bytes, size_t size, size_t count, void *to) {
  auto *at = static_cast<char **>(to);
  std::memcpy(*at, bytes, size * count);
  *at += size * count;
  return size * count;
}

// Reads ranges of `pack_bytes` one after another on one connection, into a buffer.
figures run_libcurl(const std::string &url, int pack_bytes, int packs) {
  CURL *const curl = curl_easy_init();
  std::vector<char> buffer(static_cast<size_t>(pack_bytes));
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &take);
  const auto begin = steady::now();
  const double cpu = cpu_seconds();
  for (int i = 0; i < packs; ++i) {
    char range[64];
    std::snprintf(range, sizeof range, "%d-%d", i * pack_bytes, (i + 1) * pack_bytes - 1);
    char *at = buffer.data();
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &at);
    curl_easy_setopt(curl, CURLOPT_RANGE, range);
    if (curl_easy_perform(curl) != CURLE_OK || at != buffer.data() + pack_bytes) return {};
  }
  const figures found{{"seconds", seconds_since(begin)}, {"cpu", cpu_seconds() - cpu}};
  curl_easy_cleanup(curl);
  return found;
}

void beside_libcurl(const effort &e, const http_server &server, int cpu, results &out) {
  constexpr int pack_bytes = 8 << 10;
  const int packs = e.times(20'000);
  const auto bytes = static_cast<uint64_t>(packs) * pack_bytes;
  const served_file file(0, bytes + 1, server_like_theirs(4));
  std::vector<figures> ours, theirs;
  for (int i = 0; i < e.runs; ++i) {
    theirs.push_back(in_child(cpu, [&] { return run_libcurl(server.url(), pack_bytes, packs); }));
    ours.push_back(in_child(cpu, [&] {
      return run_play({&file, 4, pack_bytes, ring_bytes, read_bytes});
    }));
  }
  const double gib = static_cast<double>(bytes) / (1 << 30);
  out.add({"beside others", std::string("libcurl, 8 KiB ranges, ") + (cpu == 0 ? "one" : "split"),
           "processor s/GiB", medians(ours)["cpu"] / gib, medians(theirs)["cpu"] / gib, false,
           0.5});
}
#endif

struct rival {
  const char *name;
  std::vector<std::string> words;
  int nodes, pack_bytes;
};

void beside(const effort &e, const http_server &server, uint64_t size, const rival &r,
            results &out) {
  // (A size that the pack size does not divide: see c2ms_sess_pack_size.)
  const served_file file(0, size + 1, server_like_theirs(r.nodes));
  std::vector<figures> ours, theirs, bare;
  for (int i = 0; i < e.runs; ++i) {
    theirs.push_back(run_command(r.words));
    bare.push_back(in_child(client_cpu, [&] {
      return run_limit({&file, r.nodes, r.pack_bytes, ring_bytes, read_bytes});
    }));
    ours.push_back(in_child(client_cpu, [&] {
      return run_play({&file, r.nodes, r.pack_bytes, ring_bytes, read_bytes});
    }));
    std::remove((server.folder() + "/out").c_str());
  }
  figures other = medians(theirs), own = medians(ours);
  if (other.empty()) return out.note(std::string(r.name) + ": not there");
  const double gib = static_cast<double>(size) / (1 << 30);
  const std::string what =
      std::string(r.name) + ", ours at " + std::to_string(r.pack_bytes >> 10) + " KiB";
  out.add(
      {"beside others", what, "processor s/GiB", own["cpu"] / gib, other["cpu"] / gib, false, 1});
  // The least cost of receiving so many ranges and copying them.
  out.add({"beside others", what + ": the limit", "processor s/GiB", medians(bare)["cpu"] / gib,
           other["cpu"] / gib, false, 0});
  out.add({"beside others", what, "MB/s", static_cast<double>(size) / 1e6 / own["seconds"],
           static_cast<double>(size) / 1e6 / other["seconds"], true, 0});
}

}  // namespace

void bench_others(const effort &e, results &out) {
  const auto size = static_cast<uint64_t>(e.times(1000)) << 20;
  const http_server server(size);
  if (!server.works()) return out.note("nginx is not there: nothing beside other programs");
  for (const int pack_bytes : {64 << 10, 256 << 10, 1 << 20}) {
    beside(e, server, size,
           {"curl", {"curl", "-s", "-o", "/dev/null", server.url()}, 4, pack_bytes}, out);
    beside(e, server, size,
           {"aria2c -x4 -s4 -k1M",
            {"aria2c", "-q", "-x4", "-s4", "-k1M", "--file-allocation=none", "-d", server.folder(),
             "-o", "out", server.url()},
            4,
            pack_bytes},
           out);
  }
#ifdef BENCH_LIBCURL
  for (const int cpu : {0, 1}) beside_libcurl(e, server, cpu, out);
#endif
}

}  // namespace bench
