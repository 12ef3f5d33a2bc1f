// The films that the bridge serves, and sessions on them. A session is lent to one request at a
// time; one that comes back waits a moment for the next request of its film, which a browser makes
// at every seek, and is ended then.
#pragma once

#include <c2ms.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace bridge {

struct film {
  std::string name, url;
};

/// A session that a request has, or that waits for one.
struct loan {
  const film *of = nullptr;
  c2ms_sess *sess = nullptr;
  bool lent = false;
  std::chrono::steady_clock::time_point back_at{};
};

class Films {
 public:
  Films(std::vector<film> films, uint64_t memory);
  ~Films();
  Films(const Films &) = delete;
  Films &operator=(const Films &) = delete;

  bool ready() const { return library_ != nullptr; }
  const std::vector<film> &all() const { return films_; }
  const film *find(const std::string &name) const;

  /// A session on the film, for the caller alone; NULL, and why. Waits as c2ms_sess_start.
  c2ms_sess *lend(const film *which, int32_t *error);
  void give_back(c2ms_sess *sess);
  /// Ends sessions that have waited long enough. Call it some times a second.
  void tidy();
  /// Everybody who waits for bytes ends; nothing is lent any more.
  void stop();
  bool stopping() const { return stopping_; }

  /// A line of JSON about each session: what is buffered, who delivers how fast, how it waited.
  std::string figures();

 private:
  c2ms_sess *take_waiting(const film *which);
  bool end_oldest_waiting();

  const std::vector<film> films_;
  const uint64_t memory_;
  c2ms_mgmt *library_;
  std::atomic<bool> stopping_{false};
  std::mutex lock_;
  std::vector<loan> loans_;
};

}  // namespace bridge
