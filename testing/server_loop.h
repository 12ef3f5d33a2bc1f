// The one thread that does all network work of the media server: an epoll loop over the listening
// sockets and connections of the entry and the nodes, with their rates, delays and stream faults.
// Only media_server uses it. Everything here belongs to that thread; other threads come in through
// run().
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "testing/files.h"
#include "testing/media_server.h"
#include "testing/responder.h"
#include "testing/token_bucket.h"

namespace refserver {

using steady = std::chrono::steady_clock;

/// A fault that a server has been ordered to commit, and how many matching requests came since.
struct armed_fault {
  fault order;
  uint32_t seen = 0;
};

/// The entry or one media node.
struct server_node {
  int index = entry_server;
  node_options options;
  uint32_t address = 0;
  uint16_t port = 0;
  int holder = -1;    ///< bound but not listening: reserves the port while nobody listens on it
  int listener = -1;  ///< -1 while killed or refusing
  bool alive = true;
  bool refusing = false;
  uint64_t life = 0;        ///< counts kills and revivals: timers of an earlier one are ignored
  uint64_t refusals = 0;    ///< the same, for timers that reopen the port
  uint64_t rates = 0;       ///< the same, for timers of the rate
  bool rate_timer = false;  ///< a timer will serve `waiting`, or it is being served
  token_bucket bucket;
  std::deque<uint64_t> waiting;  ///< connections that wait for tokens, in order
  std::vector<armed_fault> faults;
  std::array<uint64_t, fault_kinds> injected{};
  node_totals totals;
};

/// One response being sent, with the faults of its stream.
struct outgoing {
  reply what{};
  uint64_t sent = 0;
  int delay_ms = 0;                 ///< counts from when it is at the head of the queue
  steady::time_point not_before{};  ///< nothing is sent earlier
  uint64_t cut_at = UINT64_MAX;     ///< `cut` happens here
  fault cut{};
  uint64_t drip_until = 0;  ///< byte by byte up to here
  int drip_ms = 0;
  bool stuck = false;   ///< stalled for ever
  int reset_waits = 0;  ///< waits so far for the peer to take the bytes before a reset
  fault_kind counts = fault_kind::none;  ///< committed once `counts_at` bytes are sent
  uint64_t counts_at = 0;
  uint64_t record = UINT64_MAX;  ///< number of its log record

  uint64_t total() const { return what.pdu.size() + what.payload; }
};

struct connection {
  uint64_t id = 0;
  int fd = -1;
  server_node *node = nullptr;
  bytes in;
  std::deque<outgoing> out;
  bool runnable = false;     ///< in the loop's runnable_
  bool queued = false;       ///< in node->waiting
  bool wants_write = false;  ///< registered for it
  size_t grant = 0;          ///< bytes it may send now on a limited server
};

class server_loop {
 public:
  explicit server_loop(server_options options);
  ~server_loop();

  bool start();
  void stop();

  /// Runs `job` on the loop's thread and waits for its end. Without that thread, runs it here.
  void run(const std::function<void()> &job);

  // The rest is for jobs only.
  server_node &node(int index) { return nodes_[static_cast<size_t>(index) + 1]; }
  std::deque<server_node> &nodes() { return nodes_; }
  void kill(server_node &n, bool reset);
  void revive(server_node &n);
  void set_rate(server_node &n, double bytes_per_s);
  void add_fault(server_node &n, const fault &order);
  void clear_faults(server_node &n);
  std::array<uint8_t, 16> auth() const;
  void clear_log();

  server_options options;
  file_store files;
  std::deque<request_record> log;
  std::string error;

 private:
  enum class step_result : uint8_t { again, waits, gone };
  enum class timer_kind : uint8_t { connection, rate, revive, listen };
  struct timer {
    steady::time_point when;
    timer_kind kind;
    uint64_t id;  ///< of the connection, else the node's life, rates or refusals
    server_node *node;
    bool operator>(const timer &other) const { return when > other.when; }
  };

  bool one_port() const { return options.spread_addresses || options.listen.size() > 1; }
  uint32_t address_of(int index) const;
  bool open_ports();
  bool open_port(server_node &n, uint16_t port);
  bool update_listener(server_node &n);
  void main_loop();
  void wait_events();
  void run_jobs(bool last);
  void run_timers();
  void accept_all(server_node &n);
  void readable(uint64_t id);
  void pump(uint64_t id);
  bool next_request(connection &c);
  void answer(connection &c, const request &r, const fault *order, uint64_t record);
  void plan(connection &c, outgoing o, const fault *order);
  service service_for(const server_node &n, const request &r);
  const fault *match(server_node &n, uint8_t target);
  step_result step(connection &c);
  step_result cut(connection &c, outgoing &o);
  ssize_t transmit(connection &c, const outgoing &o, size_t size);
  void account(connection &c, outgoing &o, size_t size);
  void finish(connection &c);
  void committed(server_node &n, outgoing &o);
  void wait_for_tokens(connection &c);
  void wake_rate(server_node &n, steady::time_point when);
  void serve_rate(server_node &n);
  void writable(uint64_t id);
  void make_runnable(connection &c);
  void want_write(connection &c, bool on);
  void drop(uint64_t id, bool reset);
  void wake(timer_kind kind, steady::time_point when, uint64_t id, server_node *n);
  connection *find(uint64_t id);
  request_record *record(uint64_t number);
  double seconds() const;

  std::deque<server_node> nodes_;  ///< entry first; deque: they stay where they are
  std::unordered_map<uint64_t, connection> connections_;
  std::deque<uint64_t> runnable_;  ///< had more to send when their turn was over
  std::priority_queue<timer, std::vector<timer>, std::greater<>> timers_;
  std::vector<std::pair<server_node *, int>>
      downs_;  ///< to be taken down after this turn, and for ms
  bytes buffer_;
  uint64_t last_connection_ = 0;
  uint64_t log_base_ = 0;  ///< number of the log's first record
  steady::time_point started_{};
  int epoll_ = -1;
  int wakeup_ = -1;

  std::thread thread_;
  std::mutex mutex_;  ///< guards the rest
  std::condition_variable jobs_done_;
  struct job_entry {
    const std::function<void()> *job;
    bool *done;
  };
  std::vector<job_entry> jobs_;
  bool running_ = false;
  bool stopping_ = false;
};

}  // namespace refserver
