// See client.h.
#include "client.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "c2ms/core/time.h"
#include "c2ms/fetch/choice.h"
#include "c2ms/fetch/work.h"

namespace sim {

namespace {

constexpr double entry_s = 0.06;  // the entry server names the others then
constexpr double probe_s = 3;
constexpr double help_s = 0.02;     // between two looks for late packs
constexpr int32_t help_packs = 64;  // that are looked at
constexpr int64_t description_bytes = 1400;
constexpr double connect_timeout = 7.55;
constexpr double first_brake = 0.25;
constexpr double stalled_s = 10;    // without a byte, then a connection that owes some is dropped
constexpr double anew_pause_s = 1;  // between two that are given up for being hopeless
constexpr double starved_s = 0.2;
constexpr double idle_s = 30;
constexpr int most_bearers = 2;  // that a pack has when another one is asked

int64_t us(double seconds) {
  return static_cast<int64_t>(seconds * 1e6);
}

}  // namespace

Client::Client(const std::vector<link_terms> &links, double access_mbit, const client_terms &terms,
               uint64_t seed)
    : terms_(terms) {
  if (access_mbit > 0) access_ = std::make_unique<Link>(steady(access_mbit, 0), seed);
  for (const link_terms &one : links) {
    links_.push_back(std::make_unique<Link>(one, seed + 1 + links_.size(), access_.get()));
    channels_.emplace_back().server = links_.size() - 1;
    channels_.back().retry_at = entry_s;
  }
  packs_.resize(static_cast<size_t>(std::ceil(terms.film_bytes / terms.pack_bytes)));
  ring_packs_ = static_cast<int32_t>(terms.ring_bytes / terms.pack_bytes);
}

// --- connections

void Client::open(channel &one) {
  one.connection = std::make_unique<Connection>(links_[one.server].get());
  one.connection->open(now_);
  one.asked = one.ready = false;
  one.since = one.used_at = now_;
  one.retry_at = never;
  ++opened_;
}

void Client::give_up(channel &one) {
  for (const answer &each : one.answers) {
    for (int32_t k = each.first; k < each.first + each.count; ++k) at(k).bearers -= 1;
  }
  one.answers.clear();
  one.estimate.disconnected();
  one.connection.reset();
  one.ready = false;
  one.retry_at = now_ + one.brake;
  one.brake = std::clamp(one.brake * 2, first_brake, connect_timeout);
  idle_known_ = false;
}

// True when the server's description has come: the connection can be asked.
bool Client::prepare(channel &one) {
  if (one.connection == nullptr) {
    if (now_ >= one.retry_at) open(one);
    return false;
  }
  if (one.ready) return true;
  if (now_ - one.since > connect_timeout) {
    give_up(one);
    return false;
  }
  if (!one.connection->is_open(now_)) return false;
  if (!one.asked) {
    one.asked = true;
    one.asked_at = now_;
    one.connection->request(now_, description_bytes);
  }
  one.ready = one.connection->step(now_) > 0;
  if (one.ready) one.estimate.exchanged(us(now_), us(now_ - one.asked_at));
  return one.ready;
}

void Client::receive(double now) {
  now_ = now;
  for (channel &one : channels_) {
    if (!prepare(one)) continue;
    const int64_t arrived = one.connection->step(now_);
    if (one.estimate.silence(us(now_)) > stalled_s) give_up(one);
    if (arrived <= 0) continue;
    received_ += static_cast<double>(arrived);
    one.used_at = now_;
    if (one.answers.empty()) continue;
    one.estimate.received(us(now_), arrived);
    take(one, arrived);
  }
}

// --- packs

int64_t Client::size_of(int32_t index) const {
  const double from = static_cast<double>(index) * terms_.pack_bytes;
  return static_cast<int64_t>(std::min<double>(terms_.pack_bytes, terms_.film_bytes - from));
}

int64_t Client::bytes_of(const answer &one) const {
  return static_cast<int64_t>(one.count - 1) * terms_.pack_bytes +
         size_of(one.first + one.count - 1) - one.skipped;
}

int32_t Client::end() const {
  return std::min<int32_t>(first() + ring_packs_ * 7 / 8, static_cast<int32_t>(packs_.size()));
}

void Client::take(channel &one, int64_t arrived) {
  while (arrived > 0 && !one.answers.empty()) {
    answer &now = one.answers.front();
    const int64_t taken = std::min(arrived, bytes_of(now) - now.got);
    int64_t from = now.skipped + now.got;
    const int64_t to = from + taken;
    while (from < to) {
      const auto k = static_cast<int32_t>(from / terms_.pack_bytes);
      const int64_t start = static_cast<int64_t>(k) * terms_.pack_bytes;
      const int64_t whole = size_of(now.first + k);
      const int64_t until = std::min(to, start + whole);
      fill(now.first + k, from - start, until - start, until - start == whole);
      from = until;
    }
    now.got += taken;
    arrived -= taken;
    if (now.got < bytes_of(now)) continue;
    one.answers.erase(one.answers.begin());
    one.brake = 0;
    completed_ = true;
  }
}

void Client::fill(int32_t index, int64_t from, int64_t to, bool ended) {
  pack &one = at(index);
  if (ended) one.bearers -= 1;
  if (index < first() || index >= end()) {
    one.bytes = 0;
    idle_known_ = false;
    return;
  }
  twice_ += static_cast<double>(std::max<int64_t>(std::min<int64_t>(to, one.bytes) - from, 0));
  if (from <= one.bytes) one.bytes = std::max(one.bytes, static_cast<int32_t>(to));
  if (!one.ready && one.bytes == size_of(index)) one.ready = completed_ = true;
  if (ended) idle_known_ = false;
}

double Client::have() {
  int32_t i = std::max(contiguous_, first());
  while (i < static_cast<int32_t>(packs_.size()) && at(i).ready) ++i;
  contiguous_ = i;
  return std::max(position_,
                  std::min(static_cast<double>(i) * terms_.pack_bytes, terms_.film_bytes));
}

void Client::moved(double position) {
  for (int32_t k = first(); (k + 1) * static_cast<double>(terms_.pack_bytes) <= position; ++k)
    at(k).bytes = 0;
  if (position != position_) idle_known_ = false;
  position_ = position;
}

void Client::seek(double position) {
  sought_at_ = now_;
  position_ = position;
  contiguous_ = 0;
  idle_known_ = false;
  for (int32_t k = 0; k < static_cast<int32_t>(packs_.size()); ++k) {
    if (k >= first() && k < end()) continue;
    at(k).ready = false;
    at(k).bytes = 0;
  }
}

const std::vector<c2ms::stretch> &Client::idle() {
  if (idle_known_) return idle_;
  idle_known_ = true;
  idle_.clear();
  for (int32_t k = std::max(first(), contiguous_); k < end(); ++k) {
    if (at(k).ready || at(k).bearers > 0) continue;
    if (!idle_.empty() && idle_.back().first + idle_.back().count == k) {
      ++idle_.back().count;
    } else {
      idle_.push_back({k, 1});
    }
  }
  return idle_;
}

// --- the choice

Client::lanes_of Client::lanes() const {
  lanes_of all;
  for (const channel &one : channels_) {
    c2ms::lane lane;
    lane.rate = one.estimate.rate();
    lane.round_trip = one.estimate.round_trip();
    lane.owed = static_cast<double>(one.estimate.owed());
    lane.brought = static_cast<double>(one.estimate.brought());
    lane.silence = one.ready ? one.estimate.silence(us(now_)) : now_ - one.since;
    lane.growing = one.estimate.growing(us(now_));
    lane.usable = one.ready;
    lane.server = static_cast<uint32_t>(one.server);
    all.push_back(lane);
  }
  return all;
}

c2ms::ring_view Client::ring() {
  const auto urgent = static_cast<int32_t>(std::ceil(wanted_ / terms_.pack_bytes));
  return {terms_.pack_bytes, ring_packs_ * 7 / 8, idle(), urgent};
}

c2ms::reader_view Client::reader() {
  return {pace_, have() - position_, now_ - sought_at_};
}

// Time for which the reader waits although a connection is idle that would long have brought what
// it waits for.
void Client::count_starved(double step) {
  if (have() >= wanted_ || waits_for_ != contiguous_) {
    waits_for_ = contiguous_;
    waits_since_ = now_;
    return;
  }
  for (const channel &one : channels_) {
    if (!one.ready || !one.answers.empty()) continue;
    const link_terms &link = links_[one.server]->terms();
    double rate = link.mbit_at(now_) * 1e6 / 8;
    if (access_ != nullptr)
      rate = std::min(
          rate, access_->terms().mbit_at(now_) * 1e6 / 8 / static_cast<double>(channels_.size()));
    const double brings =
        link.round_trip + link.jitter + link.think + terms_.pack_bytes / std::max(rate, 1.0);
    if (now_ - std::max(waits_since_, one.used_at) < 2 * brings + starved_s) continue;
    starved_ += step;
    return;
  }
}

void Client::ask(double now, double pace, double wanted) {
  count_starved(now - asked_at_);
  asked_at_ = now_ = now;
  pace_ = pace;
  wanted_ = wanted;
  have();
  for (size_t i = 0; i < channels_.size(); ++i) ask_one(i);
  if (completed_ || now_ - helped_at_ >= help_s) {
    completed_ = false;
    helped_at_ = now_;
    help();
    leave_hopeless();
    grow();
  }
}

void Client::ask_one(size_t who) {
  channel &one = channels_[who];
  if (!one.ready || one.answers.size() >= 2 || idle().empty()) return;
  const auto all = lanes();
  if (one.answers.size() == 1 && !c2ms::asks_ahead(all, who, reader())) return;
  const bool probe = one.answers.empty() && now_ - one.probed_at > probe_s;
  const c2ms::run run = c2ms::choose_run(all, who, ring(), reader(), probe);
  if (run.count == 0) return;
  one.probed_at = now_;
  request(one, run);
}

void Client::request(channel &one, c2ms::run run) {
  const int64_t skipped = at(run.first).bytes < size_of(run.first) ? at(run.first).bytes : 0;
  for (int32_t k = 0; k < run.count; ++k) at(run.first + k).bearers += 1;
  one.answers.push_back({run.first, run.count, skipped});
  const int64_t bytes = bytes_of(one.answers.back());
  one.estimate.asked(us(now_), bytes);
  one.connection->request(now_, bytes);
  one.used_at = now_;
  ++requests_;
  idle_known_ = false;
}

// Who brings a pack first, of those who were asked; `but` is left out.
Client::bearer Client::soonest(int32_t index, const lanes_of &all, size_t but) const {
  bearer best;
  for (size_t i = 0; i < channels_.size(); ++i) {
    double before = 0;
    for (const answer &each : channels_[i].answers) {
      const double left = static_cast<double>(bytes_of(each) - each.got);
      if (i != but && index >= each.first && index < each.first + each.count) {
        const double behind =
            static_cast<double>(each.first + each.count - 1 - index) * terms_.pack_bytes;
        const double expected = c2ms::arrives_in(all, i, before + std::max(left - behind, 1.0));
        if (expected < best.expected) best = {expected, i};
      }
      before += left;
    }
  }
  return best;
}

double Client::needed(int32_t index, const lanes_of &all) {
  const double start = static_cast<double>(index) * terms_.pack_bytes;
  if (start < wanted_) return 0;
  return c2ms::needed_in(all, ring(), reader(), start - position_);
}

void Client::help() {
  const int32_t last = std::min(contiguous_ + help_packs, end());
  for (int32_t k = contiguous_; k < last;) {
    if (at(k).ready || at(k).bearers == 0 || at(k).bearers > most_bearers || !help_with(k)) ++k;
  }
}

// Asks the best helper for a late pack and for those behind it that are late too. True when
// somebody was asked.
bool Client::help_with(int32_t index) {
  auto all = lanes();
  const bearer holder = soonest(index, all, channels_.size());
  const double when = needed(index, all);
  if (holder.expected <= when) return false;
  for (size_t i = 0; i < channels_.size(); ++i) {
    bool bears = channels_[i].answers.size() >= 2;
    for (const answer &each : channels_[i].answers)
      bears |= index >= each.first && index < each.first + each.count;
    if (bears) all[i].usable = false;
  }
  const auto missing = static_cast<double>(size_of(index) - at(index).bytes);
  const size_t who =
      c2ms::choose_helper(all, all[holder.who].server, missing, holder.expected, when);
  if (who >= all.size()) return false;
  if (!c2ms::may_repeat(twice_, received_, when <= 0)) return false;
  int32_t late = 1;
  while (index + late < end() && is_late(index + late, holder.who)) ++late;
  request(channels_[who], {index, c2ms::choose_help(all, who, late, terms_.pack_bytes)});
  return true;
}

bool Client::is_late(int32_t index, size_t holder) {
  if (at(index).ready || at(index).bearers == 0 || at(index).bearers > most_bearers) return false;
  const auto all = lanes();
  const bearer other = soonest(index, all, channels_.size());
  return other.who == holder && other.expected > needed(index, all);
}

// Something of what a connection owes is still missing.
bool Client::wanted_from(const channel &one) const {
  for (const answer &each : one.answers) {
    for (int32_t k = each.first; k < each.first + each.count; ++k) {
      if (k >= first() && k < end() && !at(k).ready) return true;
    }
  }
  return false;
}

void Client::leave_hopeless() {
  for (size_t i = 0; i < channels_.size(); ++i) {
    channel &one = channels_[i];
    if (one.answers.empty() || now_ - one.since < anew_pause_s || wanted_from(one)) continue;
    if (c2ms::is_hopeless(lanes(), i)) give_up(one);
  }
}

void Client::grow() {
  for (size_t i = channels_.size(); i-- > 0;) {
    channel &one = channels_[i];
    if (one.first || now_ - one.used_at < idle_s) continue;
    give_up(one);
    channels_.erase(channels_.begin() + static_cast<long>(i));
  }
  if (idle().empty()) return;
  const auto all = lanes();
  const size_t like = c2ms::wants_connection(all);
  if (like >= all.size()) return;
  channel more;
  more.server = channels_[like].server;
  more.first = false;
  channels_.push_back(std::move(more));
  open(channels_.back());
}

void Client::print() {
  std::printf("%7.2f at %7.0f lead %6.0f of %7.0f KiB |", now_, position_ / 1024,
              (have() - position_) / 1024, received_ / 1024);
  for (const channel &one : channels_) {
    std::printf(" %zu%s r%5.0f o%5.0f s%4.1f", one.server, one.ready ? "" : "-",
                one.estimate.rate() / 1024, static_cast<double>(one.estimate.owed()) / 1024,
                one.estimate.silence(us(now_)));
  }
  std::printf("\n");
  if (have() >= wanted_ || contiguous_ >= end()) return;
  const bearer who = soonest(contiguous_, lanes(), channels_.size());
  std::printf("        waits for %d, %d asked, the soonest %zu in %.2f s\n", contiguous_,
              at(contiguous_).bearers, who.who, who.expected);
}

}  // namespace sim
