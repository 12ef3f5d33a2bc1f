// A player's session in virtual time: the ring of packs and the connections, with the library's own
// estimates and choice (c2ms/fetch) between them. The reader (reader.h) says what it takes.
#pragma once

#include <memory>
#include <vector>

#include "c2ms/core/estimate.h"
#include "c2ms/fetch/choice.h"
#include "connection.h"

namespace sim {

struct client_terms {
  double film_bytes = 40e6;
  int pack_bytes = 32 * 1024;
  double ring_bytes = 8 << 20;
};

class Client {
 public:
  Client(const std::vector<link_terms> &links, double access_mbit, const client_terms &terms,
         uint64_t seed);

  /// Moves connections and answers on to `now`.
  void receive(double now);
  /// Asks for what is missing. `pace` is 0 while the reader takes whatever comes, `wanted` the end
  /// of what it waits for (0 while it waits for nothing).
  void ask(double now, double pace, double wanted);
  /// The reader is at `position`, having read all before it.
  void moved(double position);
  void seek(double position);

  /// The end of what lies at the reader's position without a hole.
  double have();
  double twice() const { return twice_; }
  double received() const { return received_; }
  int requests() const { return requests_; }
  int opened() const { return opened_; }
  /// Seconds for which the reader waited while a connection that could have brought the pack sooner
  /// was not asked.
  double starved() const { return starved_; }
  void print();

 private:
  struct pack {
    bool ready = false;
    int bearers = 0;    // answers under way that would bring its end
    int32_t bytes = 0;  // of its beginning that are there
  };
  struct answer {
    int32_t first, count;
    int64_t skipped;  // of the first pack: there already
    int64_t got = 0;
  };
  struct channel {
    std::unique_ptr<Connection> connection;
    size_t server = 0;
    bool first = true;  // of its server
    c2ms::Estimate estimate;
    std::vector<answer> answers;
    bool asked = false, ready = false;  // for the description; and it has come
    double since = 0, asked_at = 0, retry_at = 0, brake = 0, used_at = 0, probed_at = 0;
  };
  using lanes_of = std::vector<c2ms::lane>;

  void open(channel &one);
  void give_up(channel &one);
  bool prepare(channel &one);
  void take(channel &one, int64_t arrived);
  void fill(int32_t index, int64_t from, int64_t to, bool ended);
  void ask_one(size_t who);
  void request(channel &one, c2ms::run run);
  void help();
  bool help_with(int32_t index);
  bool is_late(int32_t index, size_t holder);
  void leave_hopeless();
  bool wanted_from(const channel &one) const;
  void grow();

  lanes_of lanes() const;
  struct bearer {
    double expected = never;
    size_t who = 0;
  };
  bearer soonest(int32_t index, const lanes_of &all, size_t but) const;
  const std::vector<c2ms::stretch> &idle();
  c2ms::ring_view ring();
  c2ms::reader_view reader();
  double needed(int32_t index, const lanes_of &all);
  void count_starved(double step);
  pack &at(int32_t index) { return packs_[static_cast<size_t>(index)]; }
  const pack &at(int32_t index) const { return packs_[static_cast<size_t>(index)]; }
  int64_t size_of(int32_t index) const;
  int32_t first() const { return static_cast<int32_t>(position_ / terms_.pack_bytes); }
  int32_t end() const;
  int64_t bytes_of(const answer &one) const;

  const client_terms terms_;
  std::unique_ptr<Link> access_;
  std::vector<std::unique_ptr<Link>> links_;
  std::vector<channel> channels_;
  std::vector<pack> packs_;
  std::vector<c2ms::stretch> idle_;
  bool idle_known_ = false, completed_ = false;
  int32_t ring_packs_ = 0, contiguous_ = 0, waits_for_ = -1;
  double now_ = 0, position_ = 0, pace_ = 0, wanted_ = 0;
  double sought_at_ = -never, helped_at_ = 0, twice_ = 0, received_ = 0, starved_ = 0,
         asked_at_ = 0, waits_since_ = 0;
  int requests_ = 0, opened_ = 0;
};

}  // namespace sim
