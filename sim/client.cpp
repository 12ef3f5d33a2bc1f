#include "client.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace sim {

namespace {

constexpr double step_s = 0.001;
constexpr double piece_bytes = 32 * 1024;
constexpr double start_media_s = 2;
constexpr double probe_s = 3;

int64_t us(double seconds) {
  return static_cast<int64_t>(seconds * 1e6);
}

enum class pack_state : uint8_t { idle, requested, ready };

struct pack {
  pack_state state = pack_state::idle;
  int units = 0;  // answers under way that would fill it
};

struct answer {
  int32_t first, count;
  int64_t skipped;  // of the first pack, which somebody else has brought
  int64_t got = 0;
};

struct channel {
  std::unique_ptr<Connection> connection;
  c2ms::Estimate estimate;
  std::vector<answer> answers;
  bool ready = false;      // connected and described
  double described_at = -1;
  double probed_at = 0;
  bool spare = false;
};

class Session {
 public:
  Session(const std::vector<link_spec> &specs, const play_spec &spec, uint64_t seed, bool verbose)
      : spec_(spec), verbose_(verbose) {
    for (const link_spec &one : specs) links_.push_back(std::make_unique<Link>(one, seed + links_.size()));
    for (int round = 0; round < spec.connections_each; ++round) {
      for (auto &link : links_) {
        channel one;
        one.connection = std::make_unique<Connection>(link.get());
        one.connection->open(0);
        one.spare = round > 0;
        channels_.push_back(std::move(one));
      }
    }
    packs_.resize(static_cast<size_t>(std::ceil(spec.film_bytes / spec.pack_bytes)));
    ring_packs_ = static_cast<int32_t>(spec.ring_bytes / spec.pack_bytes);
    waits_since_ = 0;
  }

  outcome run() {
    for (now_ = 0; now_ < spec_.most_seconds && !ended_; now_ += step_s) {
      for (size_t i = 0; i < channels_.size(); ++i) move(i);
      read();
      for (size_t i = 0; i < channels_.size(); ++i) ask(i);
      help();
      if (verbose_ && std::fmod(now_, 0.1) < step_s) print();
    }
    result_.seconds = now_;
    return result_;
  }

 private:
  void print() {
    std::printf("%7.2f pos %7.0f lead %6.0f |", now_, position_ / 1024, (contiguous() - position_) / 1024);
    for (auto &c : channels_) std::printf(" r%5.0f o%5.0f", c.estimate.rate() / 1024, c.estimate.owed() / 1024.0);
    std::printf("\n");
  }

  int32_t read_index() const { return static_cast<int32_t>(position_ / spec_.pack_bytes); }
  int32_t window_end() const {
    return std::min<int32_t>(read_index() + ring_packs_ * 7 / 8, static_cast<int32_t>(packs_.size()));
  }

  // The end of what lies ahead of the reader without a hole.
  double contiguous() {
    int32_t i = std::max(contiguous_, read_index());
    while (i < static_cast<int32_t>(packs_.size()) && packs_[static_cast<size_t>(i)].state == pack_state::ready) ++i;
    contiguous_ = i;
    return std::max(position_, std::min(static_cast<double>(i) * spec_.pack_bytes, spec_.film_bytes));
  }

  void move(size_t i) {
    channel &one = channels_[i];
    if (!one.ready) {
      if (!one.connection->is_open(now_)) return;
      // The description costs a round trip.
      if (one.described_at < 0) one.described_at = now_ + round_trip(i);
      if (now_ < one.described_at) return;
      one.ready = true;
    }
    int64_t arrived = one.connection->step(now_);
    if (arrived <= 0) return;
    one.estimate.received(us(now_), arrived);
    while (arrived > 0 && !one.answers.empty()) arrived -= take(one, arrived);
  }

  double round_trip(size_t i) const { return links_[i % links_.size()]->spec().round_trip; }

  int64_t take(channel &one, int64_t arrived) {
    answer &now = one.answers.front();
    const int64_t whole = static_cast<int64_t>(now.count) * spec_.pack_bytes;
    const int64_t rest = whole - now.skipped - now.got;
    const int64_t taken = std::min(arrived, rest);
    const int64_t before = (now.skipped + now.got) / spec_.pack_bytes;
    now.got += taken;
    const int64_t after = (now.skipped + now.got) / spec_.pack_bytes;
    for (int64_t k = before; k < after; ++k) fill(now.first + static_cast<int32_t>(k));
    if (taken == rest) one.answers.erase(one.answers.begin());
    return taken;
  }

  void fill(int32_t index) {
    pack &one = packs_[static_cast<size_t>(index)];
    if (one.units > 0) --one.units;
    if (one.state == pack_state::ready) {
      result_.twice += spec_.pack_bytes;
    } else if (index >= read_index() && index < window_end()) {
      one.state = pack_state::ready;
    } else {
      one.state = pack_state::idle;
    }
  }

  std::vector<c2ms::lane> lanes() {
    std::vector<c2ms::lane> all;
    for (channel &one : channels_) {
      c2ms::lane lane;
      lane.rate = one.estimate.rate();
      lane.round_trip = one.estimate.round_trip();
      lane.owed = static_cast<double>(one.estimate.owed());
      lane.silence = one.estimate.silence(us(now_));
      lane.usable = one.ready;
      lane.server = static_cast<uint32_t>(all.size() % links_.size());
      all.push_back(lane);
    }
    return all;
  }

  std::vector<c2ms::stretch> idle() const {
    std::vector<c2ms::stretch> all;
    for (int32_t i = read_index(); i < window_end(); ++i) {
      if (packs_[static_cast<size_t>(i)].state != pack_state::idle) continue;
      if (!all.empty() && all.back().first + all.back().count == i) {
        ++all.back().count;
      } else {
        all.push_back({i, 1});
      }
    }
    return all;
  }

  c2ms::reader_view reader() { return {started_ ? spec_.pace : 0, contiguous() - position_}; }

  void ask(size_t i) {
    channel &one = channels_[i];
    if (!one.ready || one.answers.size() >= 2) return;
    if (one.spare && getenv("SPARE") && urgent_end() == 0) return;
    if (one.answers.size() == 1) {
      const auto all = lanes();
      if (!c2ms::asks_ahead(all, i)) return;
    }
    const auto gaps = idle();
    if (gaps.empty()) return;
    const auto all = lanes();
    const c2ms::ring_view ring{spec_.pack_bytes, ring_packs_ * 7 / 8, gaps, urgent_end()};
    const bool probe = one.answers.empty() && now_ - one.probed_at > probe_s;
    const c2ms::run run = c2ms::choose_run(all, i, ring, reader(), probe);
    if (run.count == 0) return;
    one.probed_at = now_;
    request(one, run, 0);
  }

  int32_t urgent_end() {
    const bool fresh = contiguous() - position_ < 1 && (result_.delivered == 0 || sought_at_ >= 0);
    return fresh ? static_cast<int32_t>(std::ceil((position_ + 64 * 1024) / spec_.pack_bytes)) : 0;
  }

  void request(channel &one, const c2ms::run &run, int64_t skipped) {
    for (int32_t k = 0; k < run.count; ++k) {
      pack &p = packs_[static_cast<size_t>(run.first + k)];
      if (p.state == pack_state::idle) p.state = pack_state::requested;
      ++p.units;
    }
    const int64_t bytes = static_cast<int64_t>(run.count) * spec_.pack_bytes - skipped;
    one.answers.push_back({run.first, run.count, skipped});
    one.estimate.asked(us(now_), bytes);
    one.connection->request(now_, bytes);
    ++result_.requests;
  }

  // The first pack that the reader lacks, when its bearer is expected to be late.
  void help() {
    const int32_t index = static_cast<int32_t>(contiguous() / spec_.pack_bytes);
    if (index >= static_cast<int32_t>(packs_.size())) return;
    for (int32_t k = index; k < std::min<int32_t>(index + 8, window_end()); ++k) help_with(k);
  }

  void help_with(int32_t index) {
    pack &one = packs_[static_cast<size_t>(index)];
    if (one.state != pack_state::requested || one.units > 2) return;
    const auto all = lanes();
    double expected = 1e9;
    int64_t have = 0;
    uint32_t holder = 0;
    for (size_t i = 0; i < channels_.size(); ++i) {
      double before = 0;
      for (const answer &a : channels_[i].answers) {
        const double end = static_cast<double>(index + 1 - a.first) * spec_.pack_bytes - static_cast<double>(a.skipped + a.got);
        if (index >= a.first && index < a.first + a.count) {
          const double arrives = c2ms::arrives_in(all, i, before + end);
          if (arrives < expected) {
            expected = arrives;
            holder = all[i].server;
          }
          have = std::max<int64_t>(have, std::max<int64_t>(spec_.pack_bytes - static_cast<int64_t>(end), 0));
        }
        before += static_cast<double>(a.count) * spec_.pack_bytes - static_cast<double>(a.skipped + a.got);
      }
    }
    const double ahead = static_cast<double>(index) * spec_.pack_bytes - position_;
    const double needed = started_ && spec_.pace > 0 ? std::max(ahead, 0.0) / spec_.pace : 0;
    if (ahead > need_ && needed > 3) return;
    const double missing = static_cast<double>(spec_.pack_bytes - have);
    const size_t who = c2ms::choose_helper(all, holder, missing, expected, needed);
    if (who >= all.size() || channels_[who].answers.size() >= 2) return;
    if (result_.twice > 0.03 * spec_.film_bytes) return;
    request(channels_[who], {index, 1}, have);
    ++helped_;
  }

  void read() {
    if (spec_.pace <= 0) {
      need_ = 256 * 1024;
      position_ = contiguous();
      result_.delivered = position_;
      ended_ = position_ >= spec_.film_bytes;
      return;
    }
    if (spec_.seek_each > 0) return read_seeking();
    if (!started_) {
      need_ = start_media_s * spec_.pace;
      if (contiguous() < std::min(need_, spec_.film_bytes)) return;
      started_ = true;
      result_.start = now_;
      due_ = now_;
    }
    need_ = piece_bytes;
    while (due_ <= now_ && !ended_) {
      const double end = std::min(position_ + piece_bytes, spec_.film_bytes);
      if (contiguous() < end) {
        if (waits_since_ == 0) waits_since_ = now_;
        return;
      }
      if (waits_since_ > 0) {
        const double waited = now_ - std::max(due_, waits_since_);
        result_.stalled += waited;
        result_.longest = std::max(result_.longest, waited);
        due_ += waited;
        waits_since_ = 0;
      }
      position_ = end;
      due_ += piece_bytes / spec_.pace;
      ended_ = position_ >= spec_.film_bytes;
    }
  }

  void read_seeking() {
    if (now_ >= next_seek_) {
      position_ = std::floor(std::fmod(position_ + spec_.film_bytes * 0.37, spec_.film_bytes * 0.9));
      sought_at_ = now_;
      next_seek_ = 1e9;
      contiguous_ = 0;
      started_ = false;
      for (size_t i = 0; i < packs_.size(); ++i) {
        const bool inside = static_cast<int32_t>(i) >= read_index() && static_cast<int32_t>(i) < window_end();
        if (!inside || packs_[i].state != pack_state::requested) packs_[i].state = pack_state::idle;
      }
      need_ = 64 * 1024;
    }
    if (sought_at_ >= 0) {
      if (contiguous() - position_ < 64 * 1024) return;
      result_.seeks.push_back(now_ - sought_at_);
      sought_at_ = -1;
      next_seek_ = now_ + spec_.seek_each;
      started_ = true;
      due_ = now_;
      ended_ = result_.seeks.size() >= 30;
      return;
    }
    while (due_ <= now_ && contiguous() >= position_ + piece_bytes) {
      position_ += piece_bytes;
      due_ += piece_bytes / spec_.pace;
    }
  }

  const play_spec spec_;
  const bool verbose_;
  std::vector<std::unique_ptr<Link>> links_;
  std::vector<channel> channels_;
  std::vector<pack> packs_;
  int32_t ring_packs_ = 0;
  int32_t contiguous_ = 0;
  double now_ = 0, position_ = 0, due_ = 0, need_ = 64 * 1024;
  double waits_since_ = 0;
  double next_seek_ = 0, sought_at_ = -1;
  bool started_ = false, ended_ = false;
  int helped_ = 0;
  outcome result_;
};

double sum_bytes_per_second(const std::vector<link_spec> &links, double now) {
  double sum = 0;
  for (const link_spec &one : links) sum += one.mbit_at(now) * 1e6 / 8 * 1448 / 1500 * (1 - one.loss);
  return sum;
}

}  // namespace

outcome play(const std::vector<link_spec> &links, const play_spec &spec, uint64_t seed, bool verbose) {
  return Session(links, spec, seed, verbose).run();
}

outcome fluid(const std::vector<link_spec> &links, const play_spec &spec) {
  outcome result;
  double have = 0, position = 0;
  bool started = false;
  for (double now = 0; now < spec.most_seconds; now += step_s) {
    const double room = spec.ring_bytes * 7 / 8 - (have - position);
    have = std::min(have + std::min(sum_bytes_per_second(links, now) * step_s, room), spec.film_bytes);
    result.seconds = now;
    if (!started) {
      started = have >= std::min(start_media_s * spec.pace, spec.film_bytes);
      result.start = now;
      continue;
    }
    const double wanted = std::min(position + spec.pace * step_s, spec.film_bytes);
    if (have + 1e-6 < wanted) result.stalled += step_s;
    position = std::min(wanted, have);
    if (position >= spec.film_bytes) break;
  }
  return result;
}

double ideal_seconds(const std::vector<link_spec> &links, const play_spec &spec) {
  double have = 0, now = 0;
  for (; have < spec.film_bytes && now < spec.most_seconds; now += step_s) have += sum_bytes_per_second(links, now) * step_s;
  return now;
}

}  // namespace sim
