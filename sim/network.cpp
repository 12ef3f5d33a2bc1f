#include "network.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {
constexpr int packet_bytes = 1448;
constexpr double first_window = 10 * packet_bytes;
constexpr double cut = 0.7;
constexpr double lost = -1;
}  // namespace

double link_spec::mbit_at(double now) const {
  if (dies_at >= 0 && now >= dies_at) return 0;
  double whole = 0;
  for (const span_rate &one : trace) whole += one.seconds;
  double rest = std::fmod(now, whole);
  const double part = cut_at >= 0 && now >= cut_at ? cut_to : 1;
  for (const span_rate &one : trace) {
    if (rest < one.seconds) return one.mbit * part;
    rest -= one.seconds;
  }
  return trace.back().mbit * part;
}

double Link::queue_bytes(double now) const {
  const double rate = spec_.mbit_at(now) * 1e6 / 8;
  return std::max({rate * 0.06, rate * spec_.round_trip / 2, 65536.0});
}

double Link::send(double now, int bytes) {
  const double rate = spec_.mbit_at(now) * 1e6 / 8;
  if (rate <= 0) return lost;
  const double waits = std::max(busy_until_ - now, 0.0);
  if (waits * rate + bytes > queue_bytes(now)) return lost;
  busy_until_ = std::max(busy_until_, now) + bytes * 1500.0 / packet_bytes / rate;
  if (spec_.loss > 0 && std::uniform_real_distribution<>()(random_) < spec_.loss) return lost;
  return busy_until_ + spec_.round_trip / 2;
}

void Connection::open(double now) {
  close();
  opened_at_ = now + link_->spec().round_trip;
}

void Connection::close() {
  opened_at_ = -1;
  requests_.clear();
  in_flight_.clear();
  backlog_ = flying_ = 0;
  window_ = first_window;
  threshold_ = 1e12;
  last_arrival_ = 0;
}

void Connection::request(double now, int64_t bytes) {
  requests_.push_back({now + link_->spec().round_trip / 2, bytes});
}

void Connection::send_packets(double now) {
  const double trip = link_->spec().round_trip;
  // After a pause the window starts anew.
  if (in_flight_.empty() && backlog_ > 0 && now - last_sent_ > std::max(0.2, 2 * trip)) {
    window_ = std::min(window_, first_window);
  }
  while (backlog_ > 0 && flying_ + packet_bytes <= window_) {
    const int bytes = static_cast<int>(std::min<int64_t>(backlog_, packet_bytes));
    const double arrives = link_->send(now, bytes);
    if (arrives == lost) {
      if (now - last_cut_ < trip) break;
      last_cut_ = now;
      threshold_ = window_ = std::max(window_ * cut, 2.0 * packet_bytes);
      if (link_->spec().mbit_at(now) <= 0) break;
      // Repeated after a round trip; what follows waits for it.
      last_arrival_ = std::max(last_arrival_, now + trip * 1.5);
    }
    const double there = std::max(arrives, last_arrival_);
    last_arrival_ = there;
    in_flight_.push_back({there, there + trip / 2, bytes});
    flying_ += bytes;
    backlog_ -= bytes;
    last_sent_ = now;
  }
}

int64_t Connection::step(double now) {
  if (!is_open(now)) return 0;
  while (!requests_.empty() && requests_.front().first <= now) {
    backlog_ += requests_.front().second;
    requests_.pop_front();
  }
  int64_t arrived = 0;
  for (packet &one : in_flight_) {
    if (one.arrives > now) break;
    if (one.bytes > 0) arrived += one.bytes;
    one.bytes = -std::abs(one.bytes);
  }
  while (!in_flight_.empty() && in_flight_.front().acknowledged <= now) {
    const int bytes = std::abs(in_flight_.front().bytes);
    flying_ -= bytes;
    window_ += window_ < threshold_ ? bytes : bytes * packet_bytes * 2.0 / window_;
    in_flight_.pop_front();
  }
  send_packets(now);
  return arrived;
}

}  // namespace sim
