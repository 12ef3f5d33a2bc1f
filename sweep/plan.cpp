// See plan.h.
#include "plan.h"

#include <netdb.h>

#include <cerrno>

#include "adif/kalloc.h"

namespace sweep {

namespace {

struct kind_info {
  const char *name;
  int errors[2];  // as the system says it; used in turn
};
constexpr kind_info kinds[calls] = {
    {"allocation", {ENOMEM, ENOMEM}},
    {"socket", {EMFILE, ENOBUFS}},
    {"socketpair", {EMFILE, ENFILE}},
    {"connect", {ENETUNREACH, ECONNREFUSED}},
    {"send", {ECONNRESET, ENOBUFS}},
    {"recv", {ECONNRESET, ENOMEM}},
    {"recvmsg", {ECONNRESET, EAGAIN}},
    {"select", {ENOMEM, EBADF}},
    {"poll", {ENOMEM, EFAULT}},
    {"getsockopt", {ENOBUFS, EBADF}},
    {"setsockopt", {ENOPROTOOPT, ENOBUFS}},
    {"getpeername", {ENOBUFS, ENOTCONN}},
    {"ioctl", {ENODEV, EPERM}},
    {"fstat", {ENOMEM, EIO}},
    {"open", {EMFILE, EACCES}},
    {"fopen", {EMFILE, ENOMEM}},
    {"resolve", {EAI_AGAIN, EAI_MEMORY}},  // its result
    {"thread", {EAGAIN, EAGAIN}},          // likewise
};

std::atomic<bool> armed{false};
std::atomic<uint8_t> wanted{0};
std::atomic<uint32_t> wanted_nth{0};
std::atomic<bool> wanted_for_good{false};
std::atomic<uint32_t> counts[calls];
std::atomic<uint32_t> made{0};
std::atomic<int64_t> first_us{0};
std::atomic<uint8_t> storm_kind{0};
std::atomic<uint32_t> storm_percent{0};
std::atomic<uint64_t> storm_state{0};
thread_local bool exempt = false;

int64_t now_us() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

void note_failure() {
  if (made.fetch_add(1) == 0) first_us = now_us();
}

// The finaliser of SplitMix64.
uint64_t mixed(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
  z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
  return z ^ (z >> 31);
}

}  // namespace

const char *name_of(call which) {
  return kinds[static_cast<size_t>(which)].name;
}

bool call_of(std::string_view name, call *out) {
  for (int i = 0; i < calls; ++i) {
    if (name != kinds[i].name) continue;
    *out = static_cast<call>(i);
    return true;
  }
  return false;
}

namespace plan {

std::atomic<bool> brim{false};
std::atomic<int64_t> clock_ahead{0};
std::atomic<bool> broken_mutex{false};
std::atomic<int> slow_names{0};
std::atomic<bool> looking_up{false};
std::atomic<int> hole{0}, straight{0};

void arm(call which, uint32_t nth, bool for_good) {
  wanted = static_cast<uint8_t>(which);
  wanted_nth = nth;
  wanted_for_good = for_good;
  armed = true;
}

void storm(weather kind, uint32_t percent, uint64_t seed) {
  storm_percent = percent;
  storm_state = mixed(seed + 1);
  storm_kind = static_cast<uint8_t>(kind);
  armed = true;
}

void stop() {
  armed = false;
  adif::fail_allocations(0);
}

bool active() {
  return armed.load();
}
uint32_t injected() {
  return made.load();
}
double since_first() {
  return made.load() == 0 ? 0 : static_cast<double>(now_us() - first_us.load()) / 1e6;
}
uint32_t count(call which) {
  return counts[static_cast<size_t>(which)].load();
}

bool fails(call which) {
  if (!armed.load() || exempt) return false;
  const auto kind = static_cast<size_t>(which);
  const uint32_t number = counts[kind].fetch_add(1) + 1;
  const uint32_t nth = wanted_nth.load();
  if (wanted.load() != kind || nth == 0 || number < nth) return false;
  const bool for_good = wanted_for_good.load();
  if (number > nth && !for_good) return false;
  // The pools repeat a failed allocation until it succeeds; this is what ends that.
  if (which == call::allocation && for_good && number == nth)
    adif::fail_allocations(1, adif::kFailForGood);
  note_failure();
  errno = kinds[kind].errors[number % 2];
  return true;
}

weather meets() {
  const auto kind = static_cast<weather>(storm_kind.load());
  if (kind == weather::none || !armed.load() || exempt) return weather::none;
  const uint64_t dice = mixed(storm_state.fetch_add(0x9e3779b97f4a7c15));
  if (dice % 100 >= storm_percent.load()) return weather::none;
  note_failure();
  return kind != weather::all ? kind : static_cast<weather>(1 + (dice >> 32) % 3);
}

Exempt::Exempt(bool value) : before_(exempt) {
  exempt = value;
}
Exempt::~Exempt() {
  exempt = before_;
}
bool is_exempt() {
  return exempt;
}

}  // namespace plan
}  // namespace sweep
