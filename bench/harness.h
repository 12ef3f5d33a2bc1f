// What the end-to-end benches share: processors, child processes that return figures, medians. A
// bench is a function that runs in a pinned child process of its own, so that processor time and
// memory belong to it alone.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "testing/media_server.h"

namespace bench {

using steady = std::chrono::steady_clock;
using figures = std::map<std::string, double>;

inline constexpr int any_cpu = -1;

inline double seconds_since(steady::time_point start) {
  return std::chrono::duration<double>(steady::now() - start).count();
}

/// Processor seconds (user and system) of this process so far.
double cpu_seconds();

/// Resident memory of this process in bytes.
double resident_bytes();

/// Runs `measure` in a child pinned to `cpu` and returns its figures; empty when it failed.
figures in_child(int cpu, const std::function<figures()> &measure);

/// The median of each figure over several runs; runs without figures are left out.
figures medians(const std::vector<figures> &runs);

/// The options of all servers of the benches: no log, no check of authorisation, and a congestion
/// control that does not pace. One that does (bbr) sends at the rate that it has seen, so that
/// chance decides whether a run is fast or half as fast.
refserver::server_options plain_server(int nodes = 4);

/// Chooses another congestion control for those servers; empty: the system's.
void set_congestion(const std::string &name);

/// The reference server in a process of its own, pinned to `cpu`. It serves one file of `size`
/// bytes and of type `type` that repeats a block in memory: sending costs only the copy into the
/// kernel.
class served_file {
 public:
  served_file(int cpu, uint64_t size, refserver::server_options options);
  /// Serves a file on disk, with its index.
  served_file(int cpu, const std::string &path, refserver::server_options options);
  ~served_file();
  served_file(const served_file &) = delete;
  served_file &operator=(const served_file &) = delete;

  const std::string &url() const { return url_; }
  const refserver::file_id &id() const { return id_; }
  const std::vector<uint16_t> &ports() const { return ports_; }  ///< of the nodes
  uint64_t size() const { return size_; }

 private:
  void start(int cpu, const std::function<refserver::file_id(refserver::media_server &)> &add,
             const refserver::server_options &options);

  int child_ = -1;
  int life_ = -1;  ///< closing this ends the server
  uint64_t size_ = 0;
  std::string url_;
  refserver::file_id id_{};
  std::vector<uint16_t> ports_;
};

}  // namespace bench
