// Reads the network's settings, one line after the other.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "lab/network.h"

namespace lab {

namespace {

nanoseconds from_ms(double ms) {
  return static_cast<nanoseconds>(ms * static_cast<double>(millisecond));
}

class reader {
 public:
  explicit reader(network_settings *settings) : all_(settings) {}

  bool take(const char *line) {
    unsigned long long seed = 0;
    if (std::sscanf(line, "seed %llu", &seed) == 1) {
      all_->seed = seed;
      return true;
    }
    return take_link(line) || take_rate(line) || take_loss(line) || take_outage(line);
  }

 private:
  bool take_link(const char *line) {
    if (std::sscanf(line, "access %zu", &all_->access_queue_bytes) == 1) {
      in_access_ = all_->has_access = true;
      return true;
    }
    char text[64];
    double delay = 0, jitter = 0;
    link_settings l;
    in_addr address{};
    if (std::sscanf(line, "link %63s %lf %lf %zu", text, &delay, &jitter, &l.queue_bytes) != 4)
      return false;
    if (inet_aton(text, &address) == 0) return false;
    l.address = ntohl(address.s_addr);
    l.delay = from_ms(delay);
    l.jitter = from_ms(jitter);
    all_->links.push_back(l);
    in_access_ = false;
    return true;
  }
  bool take_rate(const char *line) {
    double ms = 0, mbit = 0;
    if (std::sscanf(line, "rate %lf %lf", &ms, &mbit) != 2 || ms <= 0 || mbit < 0) return false;
    if (!in_access_ && all_->links.empty()) return false;
    rate_trace &trace = in_access_ ? all_->access_trace : all_->links.back().trace;
    trace.add_step(from_ms(ms), mbit * 1e6);
    return true;
  }
  bool take_loss(const char *line) {
    char way[8];
    loss_settings loss;
    if (std::sscanf(line, "loss %7s %lf %lf %lf", way, &loss.single, &loss.burst_share,
                    &loss.burst_length) != 4)
      return false;
    if (all_->links.empty() || loss.burst_length < 1 || loss.burst_share >= 1) return false;
    link_settings &l = all_->links.back();
    (std::strcmp(way, "down") == 0 ? l.down : l.up) = loss;
    return true;
  }
  bool take_outage(const char *line) {
    double from = 0, to = 0;
    if (std::sscanf(line, "outage %lf %lf", &from, &to) != 2 || all_->links.empty()) return false;
    all_->links.back().outages.emplace_back(from_ms(from), from_ms(to));
    return true;
  }

  network_settings *const all_;
  bool in_access_ = false;
};

}  // namespace

std::string read_settings(std::FILE *in, network_settings *settings) {
  reader lines(settings);
  char line[256];
  while (std::fgets(line, sizeof line, in) != nullptr) {
    if (!lines.take(line)) return std::string("cannot take: ") + line;
  }
  for (const link_settings &each : settings->links) {
    if (each.trace.finish(0, 1) == never) return "a link whose rate is always 0";
  }
  return settings->links.empty() ? "no link" : "";
}

}  // namespace lab
