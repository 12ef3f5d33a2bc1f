// A whole media service on this machine's loopback for tests and for c2ms-server: one entry server
// that hands out the list of media nodes, and the nodes, each with its own listening socket, rate,
// delay and faults. It shares no code with the library that it tests.
//
//   refserver::media_server server({.nodes = 2, .node = {{.rate_bytes_per_s = 1e6}}});
//   const auto id = server.add_generated("film.mp4", 5'000'000'000);
//   if (!server.start()) ... server.error() ...
//   open(server.url(id)); ...
//   refserver::content_mismatch(id, position, bytes, count) ...
//
// Threads: one thread does all the network work. Unless it says otherwise, every member function
// may be called by any thread at any time after construction. It takes effect before it returns,
// for which it waits a turn of that thread, some milliseconds at most. Nothing throws.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "testing/content.h"
#include "testing/faults.h"
#include "testing/wire.h"

namespace refserver {

/// The number of the entry server where a function takes a node; media nodes count from 0.
inline constexpr int entry_server = -1;

/// How one server behaves. Rate and delay apply to all of its connections together.
struct node_options {
  double rate_bytes_per_s = 0;  ///< shared evenly by the busy connections; 0: no limit
  int delay_ms = 0;             ///< between each request and the first byte of its response
  uint8_t type = 2;             ///< in the server list; bit 0: serves lists, bit 1: serves media
  int load = -1;                ///< the load that it reports; -1: number of its open connections
  bool one_at_a_time = false;   ///< throws requests away that come while it answers another
  std::vector<fault> faults{};
};

struct server_options {
  int nodes = 4;                     ///< media nodes beside the entry server
  std::vector<node_options> node{};  ///< of node 0, 1, ...; further nodes have the defaults
  node_options entry{};
  uint16_t port = 0;              ///< of the entry server; nodes follow at port + 1, ...; 0: any
  bool spread_addresses = false;  ///< node i at 127.0.0.(2 + i), all on the entry server's port
  std::vector<std::string> listen{};  ///< dotted addresses instead of the loopback's: one for all,
                                      ///< or one for each server, all on the entry server's port
  bool entry_is_node = false;  ///< the entry server (it serves media anyway) lists itself last
  bool encipher = false;       ///< server lists and descriptions are enciphered (result 1)
  bool check_auth = true;      ///< result 30 unless auth, stamp and keyid are the URL's
  int32_t stamp = 1700000000;
  uint32_t keyid = 7;
  bool keep_log = true;
  std::string congestion{};  ///< control of the connections, as in tcp(7); empty: the system's
};

/// One request as it arrived (its fields: testing/wire.h) and how it was answered.
struct request_record : request {
  int node = entry_server;
  uint64_t connection = 0;    ///< number of the connection, counted over all servers from 1
  double time_s = 0;          ///< when the whole request had arrived, since start()
  uint32_t result = 0;        ///< as answered
  uint64_t bytes_sent = 0;    ///< of the response, accepted by the socket so far
  uint64_t payload_sent = 0;  ///< media bytes among them
  double done_s = 0;          ///< when the last byte was handed to the socket; 0: not (yet)
  fault_kind injected = fault_kind::none;
  std::string error{};  ///< why the request is wrong; then the connection is closed without answer
};

/// Totals of one server.
struct node_totals {
  uint64_t accepted = 0;  ///< connections
  uint64_t open = 0;      ///< connections now
  uint64_t requests = 0;  ///< whole requests, bad ones too
  uint64_t bad_requests = 0;
  uint64_t thrown_away = 0;                         ///< by a server that answers one at a time
  uint64_t lists = 0, descriptions = 0, media = 0;  ///< good requests by command
  uint64_t bytes_sent = 0, payload_sent = 0;
};

/// Type code for a description, from a name's ending ("mp4" 7, ...); 0 for an unknown one.
uint8_t type_by_name(std::string_view name);

/// The id of a file with this path or name: its MD5.
file_id id_of(std::string_view path);

class server_loop;

class media_server {
 public:
  explicit media_server(server_options options = {});
  ~media_server();  ///< stops
  media_server(const media_server &) = delete;
  media_server &operator=(const media_server &) = delete;

  /// Serves a file on disk; it is read with pread when it is asked for. False: it cannot be opened
  /// or is no regular file. `id` (may be NULL) receives its id.
  bool add_file(const std::string &path, file_id *id);

  /// Serves generated content (testing/content.h) of any size. The same name gives the same id.
  file_id add_generated(const std::string &name, uint64_t size, uint8_t type = 7);

  /// Serves these bytes.
  file_id add_bytes(const std::string &name, std::string content, uint8_t type = 7);

  /// Serves a file of `size` bytes that repeats `block`. Only the socket copies the bytes.
  file_id add_repeated(const std::string &name, std::string block, uint64_t size, uint8_t type = 0);

  /// Makes descriptions of `media` name `index`, another file added here, as its index file.
  void set_index(const file_id &media, const file_id &index);

  /// Makes the index file of an MP4 media added here (testing/mp4_index.h) and names it in the
  /// media's descriptions. Reads and packs the `moov` box, which takes seconds for a long film.
  /// Returns the id of the index; all zeros, with `problem` (may be NULL) set, when there is none.
  file_id add_index(const file_id &media, std::string *problem = nullptr);

  /// Opens the ports and starts the thread. False: a port cannot be had; error() tells which.
  bool start();
  void stop();  ///< closes everything at once; afterwards only calls that read are allowed
  std::string error() const;

  /// "kesp://ADDRESS:PORT/name?fid=...;auth=...;stamp=...;keyid=..." for a file added before.
  /// Only after start(), as the next two.
  std::string url(const file_id &id) const;
  std::string address(int node) const;  ///< dotted
  uint16_t port(int node) const;        ///< stays the same over kill and revive

  /// Closes the port and all connections of a server, and resets the connections if `reset`. New
  /// connections are refused until it is revived. The port stays reserved.
  void kill_node(int node, bool reset = false);
  void revive_node(int node);
  void kill_all(bool reset = false);  ///< also the entry server
  void revive_all();

  void set_rate(int node, double bytes_per_s);
  void set_delay(int node, int ms);

  /// Replaces all faults of a server by one, and starts its count again; add_fault keeps the
  /// others. When several match a request, the one that was added first is committed.
  void set_fault(int node, const fault &order);
  void add_fault(int node, const fault &order);
  void clear_faults(int node);

  /// How often a server has really committed a fault since start().
  uint64_t injected(int node, fault_kind kind) const;

  node_totals totals(int node) const;
  node_totals totals() const;  ///< all servers together

  /// The requests of one server or of all, in order of arrival.
  std::vector<request_record> log(int node) const;
  std::vector<request_record> log() const;
  void clear_log();

 private:
  std::unique_ptr<server_loop> loop_;
};

}  // namespace refserver
