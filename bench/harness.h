// What the end-to-end benches share: processors to run on, children that measure and hand their
// figures back, medians. A bench is a function that runs in a child process of its own, pinned, so
// that its processor time and memory are its own.
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

/// Processor seconds of this process so far, user and system.
double cpu_seconds();

/// Resident bytes of this process.
double resident_bytes();

/// Runs `measure` in a child pinned to `cpu` and returns its figures; empty when it failed.
figures in_child(int cpu, const std::function<figures()> &measure);

/// The median of each figure over several runs; runs without figures are left out.
figures medians(const std::vector<figures> &runs);

/// What all servers of the benches have in common: they keep no log and ask for no authorisation.
/// Their congestion control is one that does not pace: a pacing one (bbr) sends at the rate that it
/// has seen, so that a run is fast or half as fast by chance.
refserver::server_options plain_server(int nodes = 4);

/// Another congestion control for those servers; empty: the system's.
void set_congestion(const std::string &name);

/// The reference server in a process of its own, pinned to `cpu`. It serves one file of `size`
/// bytes and of type `type`, which repeats a block in memory: sending costs it no more than the
/// copy into the kernel.
class served_file {
 public:
  served_file(int cpu, uint64_t size, refserver::server_options options);
  /// Serves a file of the disk, with its index.
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
  int life_ = -1;  ///< the server ends when this is closed
  uint64_t size_ = 0;
  std::string url_;
  refserver::file_id id_{};
  std::vector<uint16_t> ports_;
};

}  // namespace bench
