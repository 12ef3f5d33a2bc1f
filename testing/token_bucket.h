// The rate of one server, shared by its connections: a token bucket with a burst of about 20 ms.
// The server's thread takes slices for its connections in turn.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace refserver {

class token_bucket {
 public:
  using clock = std::chrono::steady_clock;

  /// 0: no limit. The bucket is empty afterwards.
  void set_rate(double bytes_per_s, clock::time_point now) {
    rate_ = std::max(bytes_per_s, 0.0);
    tokens_ = 0;
    filled_ = now;
  }

  bool limited() const { return rate_ > 0; }

  /// The bytes that a connection may send in its turn: 5 ms at the rate, 1 byte to 64 KiB.
  size_t slice() const { return static_cast<size_t>(std::clamp(rate_ * 0.005, 1.0, 65536.0)); }

  /// True: a slice may be sent now.
  bool ready(clock::time_point now) {
    const std::chrono::duration<double> passed = now - filled_;
    const double burst = std::max(rate_ * 0.02, static_cast<double>(slice()));
    tokens_ = std::min(burst, tokens_ + passed.count() * rate_);
    filled_ = now;
    return tokens_ >= static_cast<double>(slice());
  }

  void take(size_t size) { tokens_ -= static_cast<double>(size); }

  /// When there will be a slice, computed from the last ready().
  clock::time_point ready_at() const {
    const std::chrono::duration<double> missing{
        std::max(0.0, static_cast<double>(slice()) - tokens_) / rate_};
    return filled_ + std::chrono::ceil<clock::duration>(missing);
  }

 private:
  double rate_ = 0;
  double tokens_ = 0;
  clock::time_point filled_{};
};

}  // namespace refserver
