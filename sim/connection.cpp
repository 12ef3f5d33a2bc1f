// See connection.h.
#include "connection.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {
constexpr double first_window = 10;
constexpr double cut_to = 0.7, cubic_c = 0.4;
constexpr double least_timeout = 0.2;
constexpr double longest_timeout = 60;
constexpr double acknowledge_s = 0.04;     // a lone packet waits that long for a second one
constexpr int64_t told_at_once = 16;       // packets of a young connection
constexpr double least_growth = 1.0 / 20;  // of an acknowledgement, before anything was lost
}  // namespace

void Connection::open(double now) {
  // A lost first packet is repeated after 1, 3 and 7 s.
  double leaves = now;
  for (double again = 1; link_->loses_request(leaves) && again < longest_timeout; again *= 2)
    leaves += again;
  round_trip_ = link_->terms().round_trip;
  opened_at_ = leaves + round_trip_;
}

void Connection::request(double now, int64_t bytes) {
  const double trip = link_->terms().round_trip;
  double leaves = now;
  for (double again = trip + least_timeout; link_->loses_request(leaves) && again < longest_timeout;
       again *= 2) {
    leaves += again;
  }
  request_there_ = std::max(request_there_, leaves + trip / 2);
  requests_.emplace_back(request_there_, bytes);
}

void Connection::read_requests(double now) {
  while (!requests_.empty() && requests_.front().first <= now) {
    const bool busy = backlog_ > 0 || now < answers_at_;
    if (busy || (link_->terms().one_at_a_time && !segments_.empty())) return;
    const double think = link_->terms().think;
    answers_at_ = now + think * (0.1 + 0.9 * link_->uniform());
    backlog_ = requests_.front().second;
    requests_.pop_front();
  }
}

void Connection::cut(double now) {
  most_ = window_;
  back_ = std::cbrt(most_ * (1 - cut_to) / cubic_c);
  threshold_ = window_ = std::max(window_ * cut_to, 2.0);
  epoch_ = last_cut_ = now;
  was_cut_ = true;
}

// Slow start ends when a round's first packets find a queue, or when acknowledgements come as a
// train that is half a round trip long.
bool Connection::finds_queue(const flight &one, double now) {
  const double trip = link_->terms().round_trip;
  if (one.sent >= round_at_) {
    round_at_ = now;
    round_least_ = never;
    round_count_ = 0;
    train_ = true;
  }
  train_ = train_ && now - last_heard_ < 0.002;
  if (round_count_++ < 8) round_least_ = std::min(round_least_, now - one.sent - trip);
  if (window_ <= 16) return false;
  if (train_ && now - round_at_ > trip / 2) return true;
  return round_count_ == 8 && round_least_ > std::clamp(trip / 8, 0.004, 0.016);
}

void Connection::grow(const flight &one, double now) {
  const bool queue = finds_queue(one, now);
  if (!limited_) return;
  const double trip = link_->terms().round_trip;
  if (window_ < threshold_) {
    if (queue) {
      threshold_ = most_ = window_;
      back_ = 0;
      epoch_ = now;
    }
    window_ += 1;
    return;
  }
  const double since = now - epoch_;
  const double cubic = cubic_c * std::pow(since + trip - back_, 3) + most_;
  const double friendly = most_ * cut_to + 3 * (1 - cut_to) / (1 + cut_to) * since / trip;
  const double target = std::min(std::max(cubic, friendly), window_ * 1.5);
  const double growth = target > window_ ? (target - window_) / window_ : 0.01 / window_;
  window_ += was_cut_ ? growth : std::max(growth, least_growth);
}

// Every second packet is acknowledged with the one before it, each of the first ones and each
// behind a gap at once.
void Connection::tell(flight &one) {
  const bool gap = one.segment != delivered_;
  const bool second = untold_ >= 0;
  if (second) air_[static_cast<size_t>(untold_)].told = one.arrives;
  const bool waits = !gap && !second && acknowledged_++ >= told_at_once;
  one.told = one.arrives + (waits ? acknowledge_s : 0);
  untold_ = waits ? static_cast<int64_t>(heard_) : -1;
}

// Acknowledgements come in the order of sending; a packet before one of them that has not arrived
// was lost.
void Connection::acknowledge(double now) {
  const double back = link_->terms().round_trip / 2;
  size_t end = 0, last = 0;
  for (; end < air_.size(); ++end) {
    if (air_[end].arrives >= never) continue;
    if (end >= heard_ || air_[end].told + back > now) break;
    last = end + 1;
  }
  for (size_t i = 0; i < last; ++i) {
    const flight one = air_.front();
    air_.pop_front();
    --heard_;
    if (untold_ >= 0) --untold_;
    if (one.counted) flying_ -= 1;
    const bool old = one.segment < first_segment_;
    if (one.arrives >= never) {
      if (!one.counted || old) continue;
      repeats_.push_back(one.segment);
      if (one.sent > last_cut_) cut(now);
      continue;
    }
    const double at = one.told + back;
    round_trip_ += (at - one.sent - round_trip_) / 8;
    timeouts_ = 0;
    if (!old) segments_[static_cast<size_t>(one.segment - first_segment_)].acknowledged = true;
    grow(one, at);
    last_heard_ = at;
  }
  while (!segments_.empty() && segments_.front().arrived && segments_.front().acknowledged) {
    segments_.pop_front();
    ++first_segment_;
  }
}

// First the last packet is repeated alone, then all that is not acknowledged, after waits that
// double.
void Connection::time_out(double now) {
  if (segments_.empty()) return;
  const double since = now - std::max(last_sent_, last_heard_);
  const double patience = timeouts_ == 0
                              ? 2 * round_trip_ + 0.02
                              : (round_trip_ + least_timeout) * std::pow(2, timeouts_ - 1);
  if (since < std::min(patience, longest_timeout)) return;
  if (timeouts_++ == 0) {
    put(first_segment_ + static_cast<int64_t>(segments_.size()) - 1, now);
    return;
  }
  if (timeouts_ == 2) threshold_ = std::max(window_ * cut_to, 2.0);
  most_ = threshold_;
  epoch_ = last_cut_ = now;
  window_ = 1;
  for (flight &one : air_) one.counted = false;
  flying_ = 0;
  repeats_.clear();
  for (size_t i = 0; i < segments_.size(); ++i) {
    if (!segments_[i].acknowledged) repeats_.push_back(first_segment_ + static_cast<int64_t>(i));
  }
  last_sent_ = now;
}

void Connection::put(int64_t which, double now) {
  const int bytes = segments_[static_cast<size_t>(which - first_segment_)].bytes;
  air_.push_back({which, now, link_->send(now, bytes)});
  flying_ += 1;
  last_sent_ = now;
}

// A window that has not been used for a round trip and more shrinks to what was used of it.
void Connection::forget_window(double now) {
  if (limited_) {
    used_ = 0;
    used_up_at_ = now;
    return;
  }
  used_ = std::max(used_, flying_);
  if (flying_ == 0 || now - used_up_at_ < round_trip_ + least_timeout) return;
  const double used = std::max(used_, first_window);
  if (used < window_) {
    if (threshold_ < never) threshold_ = std::max(threshold_, window_ * 3 / 4);
    window_ = (window_ + used) / 2;
  }
  used_ = 0;
  used_up_at_ = now;
}

void Connection::send(double now) {
  const double pause = round_trip_ + least_timeout;
  if (backlog_ > 0 && segments_.empty() && now >= answers_at_) {
    // After a pause the window is halved for each timeout that has passed.
    for (double idle = now - last_sent_; idle > pause && window_ > first_window; idle -= pause) {
      window_ = std::max(window_ / 2, first_window);
    }
    epoch_ += now - std::max(last_sent_, epoch_);
    last_sent_ = std::max(last_sent_, now);
  }
  limited_ = true;
  while (flying_ + 1 <= window_) {
    if (link_->terms().cap_mbit > 0 && paced_until_ > now) {
      limited_ = false;
      break;
    }
    while (!repeats_.empty() &&
           (repeats_.front() < first_segment_ ||
            segments_[static_cast<size_t>(repeats_.front() - first_segment_)].acknowledged)) {
      repeats_.pop_front();
    }
    int64_t next = first_segment_ + static_cast<int64_t>(segments_.size());
    if (!repeats_.empty()) {
      next = repeats_.front();
      repeats_.pop_front();
    } else if (backlog_ > 0 && now >= answers_at_) {
      segments_.push_back({static_cast<int>(std::min<int64_t>(backlog_, packet_bytes))});
      backlog_ -= segments_.back().bytes;
    } else {
      limited_ = flying_ * 2 > window_ && window_ < threshold_;
      break;
    }
    put(next, now);
    if (link_->terms().cap_mbit > 0) {
      paced_until_ =
          std::max(paced_until_, now - 0.002) + 1500 * 8 / (link_->terms().cap_mbit * 1e6);
    }
  }
}

int64_t Connection::deliver(double now) {
  for (; heard_ < air_.size(); ++heard_) {
    const flight &one = air_[heard_];
    if (one.arrives >= never) continue;
    if (one.arrives > now) break;
    tell(air_[heard_]);
    if (one.segment >= first_segment_)
      segments_[static_cast<size_t>(one.segment - first_segment_)].arrived = true;
  }
  int64_t bytes = 0;
  while (delivered_ < first_segment_ + static_cast<int64_t>(segments_.size()) &&
         segments_[static_cast<size_t>(delivered_ - first_segment_)].arrived) {
    bytes += segments_[static_cast<size_t>(delivered_++ - first_segment_)].bytes;
  }
  return bytes;
}

int64_t Connection::step(double now) {
  if (!is_open(now) || quiet()) return 0;
  read_requests(now);
  const int64_t bytes = deliver(now);
  acknowledge(now);
  time_out(now);
  send(now);
  forget_window(now);
  return bytes;
}

}  // namespace sim
