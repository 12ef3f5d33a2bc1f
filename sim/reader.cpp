// See reader.h.
#include "reader.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {

constexpr double step_s = 0.001;
constexpr double print_s = 0.1;
constexpr double piece_bytes = 32 * 1024;
constexpr double start_media_s = 2;
constexpr double seek_bytes = 64 * 1024;

// Two seconds of media, or as much as the ring can hold.
double start_bytes(const play_terms &terms) {
  return std::min(start_media_s * terms.pace, terms.client.ring_bytes * 3 / 4);
}

class Play {
 public:
  Play(const network &net, const play_terms &terms, uint64_t seed)
      : terms_(terms), client_(net.links, net.access_mbit, terms.client, seed) {}

  outcome run(bool verbose) {
    double now = 0;
    for (; now < terms_.most_seconds && !result_.complete; now += step_s) {
      client_.receive(now);
      read(now);
      client_.ask(now, started_ ? terms_.pace : 0, waits_until_);
      if (verbose && std::fmod(now, print_s) < step_s) client_.print();
    }
    result_.seconds = now;
    result_.received = client_.received();
    result_.twice = client_.twice();
    result_.requests = client_.requests();
    result_.connections = client_.opened();
    result_.starved = client_.starved();
    std::sort(result_.seeks.begin(), result_.seeks.end());
    return result_;
  }

 private:
  double film() const { return terms_.client.film_bytes; }

  void read(double now) {
    if (terms_.pace <= 0) return download();
    if (terms_.seek_each > 0) seek(now);
    if (started_) return take_due(now);
    // A seek has read what it waited for; a start waits for more.
    waits_until_ =
        std::min((terms_.seek_each > 0 ? position_ : client_.have()) + seek_bytes, film());
    const double enough = terms_.seek_each > 0 ? seek_bytes : start_bytes(terms_);
    if (client_.have() < std::min(position_ + enough, film())) return;
    if (terms_.seek_each > 0 && sought_at_ > 0) result_.seeks.push_back(now - sought_at_);
    if (result_.start == 0) result_.start = now;
    started_ = true;
    due_ = now;
    waits_until_ = 0;
    next_seek_ = now + terms_.seek_each;
  }

  void download() { advance(client_.have()); }

  void advance(double position) {
    result_.read += position - position_;
    position_ = position;
    client_.moved(position);
    result_.complete |= position >= film();
  }

  void seek(double now) {
    if (!started_ || now < next_seek_) return;
    if (static_cast<int>(result_.seeks.size()) >= terms_.seeks) {
      result_.complete = true;
      return;
    }
    position_ = std::floor(std::fmod(position_ + film() * 0.37, film() * 0.8));
    client_.seek(position_);
    sought_at_ = now;
    started_ = false;
    waits_since_ = 0;
  }

  void take_due(double now) {
    while (due_ <= now && !result_.complete) {
      const double end = std::min(position_ + piece_bytes, film());
      if (client_.have() < end) {
        if (waits_since_ == 0) waits_since_ = now;
        waits_until_ = end;
        return;
      }
      waits_until_ = 0;
      if (waits_since_ > 0) {
        const double waited = now - waits_since_;
        result_.stalled += waited;
        result_.longest = std::max(result_.longest, waited);
        due_ += waited;
        waits_since_ = 0;
      }
      advance(end);
      due_ += piece_bytes / terms_.pace;
    }
  }

  const play_terms terms_;
  Client client_;
  double position_ = 0, due_ = 0, waits_since_ = 0, waits_until_ = seek_bytes;
  double next_seek_ = never, sought_at_ = 0;
  bool started_ = false;
  outcome result_;
};

// Bytes that come over a network, step by step.
class Stream {
 public:
  Stream(const network &net, source of) : net_(net), of_(of) {
    if (of == source::links) return;
    if (net.access_mbit > 0) access_ = std::make_unique<Link>(steady(net.access_mbit, 0), 1);
    const size_t each = std::min<size_t>(most_connections / net.links.size(), most_each);
    for (const link_terms &one : net.links) {
      links_.push_back(std::make_unique<Link>(one, 2 + links_.size(), access_.get()));
      const auto bytes = static_cast<int64_t>(one.mean_mbit() * 1e6 / 8 * request_s);
      for (size_t i = 0; i < each; ++i) {
        greedy_.push_back({Connection(links_.back().get()), 2 * one.round_trip + one.think,
                           std::max<int64_t>(bytes / static_cast<int64_t>(each), packet_bytes)});
        greedy_.back().connection.open(0);
      }
    }
  }

  double step(double now) {
    if (of_ == source::links) return rate(now) * step_s;
    int64_t sum = 0;
    for (greedy &one : greedy_) {
      for (; now >= one.ready && one.owed <= one.request; one.owed += one.request)
        one.connection.request(now, one.request);
      const int64_t bytes = one.connection.step(now);
      one.owed -= bytes;
      sum += bytes;
    }
    return of_connections * static_cast<double>(sum);
  }

 private:
  static constexpr size_t most_connections = 8, most_each = 4;
  static constexpr double request_s = 0.5, of_connections = 0.9;
  struct greedy {
    Connection connection;
    double ready;  // connected, and its description is there
    int64_t request, owed = 0;
  };

  double rate(double now) const {
    double sum = 0;
    for (const link_terms &one : net_.links) sum += one.mbit_at(now) * (1 - one.loss);
    if (net_.access_mbit > 0) sum = std::min(sum, net_.access_mbit);
    return sum * 1e6 / 8 * packet_bytes / 1500;
  }

  const network &net_;
  const source of_;
  std::unique_ptr<Link> access_;
  std::vector<std::unique_ptr<Link>> links_;
  std::vector<greedy> greedy_;
};

}  // namespace

outcome play(const network &net, const play_terms &terms, uint64_t seed, bool verbose) {
  return Play(net, terms, seed).run(verbose);
}

outcome fluid(const network &net, const play_terms &terms, source of) {
  outcome result;
  Stream stream(net, of);
  double have = 0, position = 0, waits = 0;
  const double film = terms.client.film_bytes;
  bool started = false;
  for (double now = 0; now < terms.most_seconds && position < film; now += step_s) {
    const double room = terms.client.ring_bytes * 7 / 8 - (have - position);
    have = std::min(have + std::min(stream.step(now), room), film);
    result.seconds = now;
    if (!started) {
      started = have >= std::min(start_bytes(terms), film);
      result.start = now;
      continue;
    }
    const double wanted = std::min(position + terms.pace * step_s, film);
    waits = have + 1e-6 < wanted ? waits + step_s : 0;
    result.longest = std::max(result.longest, waits);
    if (waits > 0) result.stalled += step_s;
    position = std::min(wanted, have);
  }
  return result;
}

double ideal_seconds(const network &net, const play_terms &terms, source of) {
  Stream stream(net, of);
  double have = 0, now = 0;
  for (; have < terms.client.film_bytes && now < terms.most_seconds; now += step_s)
    have += stream.step(now);
  return now;
}

}  // namespace sim
