// See films.h.
#include "films.h"

#include <algorithm>
#include <cstdio>

namespace bridge {

namespace {

constexpr uint64_t share = 8;  // sessions for which the memory is enough
constexpr std::chrono::milliseconds waits_for{700};

std::string line_of(const loan &one, const c2ms_stats &s) {
  char text[512];
  std::snprintf(text, sizeof text,
                "{\"film\":\"%s\",\"position\":%llu,\"size\":%llu,\"ahead\":%llu,\"speed\":%.1f,"
                "\"waits\":{\"no server\":%llu,\"late\":%llu,\"seek\":%llu},\"servers\":[",
                one.of->name.c_str(), static_cast<unsigned long long>(s.position),
                static_cast<unsigned long long>(s.size),
                static_cast<unsigned long long>(s.buffered_ahead), s.speed,
                static_cast<unsigned long long>(s.wait_no_node.total_us / 1000),
                static_cast<unsigned long long>(s.wait_late.total_us / 1000),
                static_cast<unsigned long long>(s.wait_seek.total_us / 1000));
  std::string line = text;
  for (uint32_t i = 0; i < s.nodes && i < C2MS_STATS_NODES; ++i) {
    std::snprintf(text, sizeof text, "%s{\"address\":\"%.63s:%u\",\"share\":%.3f,\"speed\":%.1f}",
                  i > 0 ? "," : "", s.node[i].address, s.node[i].port, s.node[i].share,
                  s.node[i].average_speed);
    line += text;
  }
  return line + "]}";
}

}  // namespace

Films::Films(std::vector<film> films, uint64_t memory) : films_(std::move(films)), memory_(memory) {
  c2ms_options options{};
  options.struct_size = sizeof options;
  options.flags = C2MS_QUIET;
  options.memory = memory;
  library_ = c2ms_mgmt_start(&options, nullptr);
}

Films::~Films() {
  if (library_ != nullptr) c2ms_mgmt_clean(library_);
}

const film *Films::find(const std::string &name) const {
  for (const film &one : films_) {
    if (one.name == name) return &one;
  }
  return nullptr;
}

c2ms_sess *Films::take_waiting(const film *which) {
  const std::lock_guard guard(lock_);
  for (loan &one : loans_) {
    if (one.lent || one.of != which) continue;
    one.lent = true;
    return one.sess;
  }
  return nullptr;
}

// Its memory is for somebody who needs it now.
bool Films::end_oldest_waiting() {
  const std::lock_guard guard(lock_);
  const auto waits = [](const loan &one) { return !one.lent; };
  const auto oldest = std::find_if(loans_.begin(), loans_.end(), waits);
  if (oldest == loans_.end()) return false;
  c2ms_sess_end(oldest->sess);
  loans_.erase(oldest);
  return true;
}

c2ms_sess *Films::lend(const film *which, int32_t *error) {
  *error = C2MS_CLOSED;
  if (stopping_) return nullptr;
  *error = 0;
  if (c2ms_sess *const waiting = take_waiting(which)) return waiting;
  c2ms_film how{};
  how.struct_size = sizeof how;
  how.cache_bytes = memory_ / share;
  c2ms_sess *sess;
  do {
    sess = c2ms_sess_start(library_, which->url.c_str(), &how, error);
  } while (sess == nullptr && *error == C2MS_NO_CACHE_MEMORY && end_oldest_waiting());
  if (sess == nullptr) return nullptr;
  const std::lock_guard guard(lock_);
  loans_.push_back({which, sess, true});
  if (stopping_) c2ms_sess_cancel(sess, 1);
  return sess;
}

void Films::give_back(c2ms_sess *sess) {
  const std::lock_guard guard(lock_);
  for (loan &one : loans_) {
    if (one.sess != sess) continue;
    one.lent = false;
    one.back_at = std::chrono::steady_clock::now();
  }
}

void Films::tidy() {
  const auto now = std::chrono::steady_clock::now();
  const std::lock_guard guard(lock_);
  std::erase_if(loans_, [now](const loan &one) {
    const bool over = !one.lent && now - one.back_at > waits_for;
    if (over) c2ms_sess_end(one.sess);
    return over;
  });
}

void Films::stop() {
  const std::lock_guard guard(lock_);
  stopping_ = true;
  for (const loan &one : loans_) c2ms_sess_cancel(one.sess, 1);
}

std::string Films::figures() {
  std::string text = "[";
  const std::lock_guard guard(lock_);
  for (const loan &one : loans_) {
    c2ms_stats stats;
    if (c2ms_sess_stats(one.sess, &stats, sizeof stats) != 0) continue;
    text += (text.size() > 1 ? "," : "") + line_of(one, stats);
  }
  return text + "]";
}

}  // namespace bridge
