// The emulator: makes two network namespaces, one for servers and one for a client, and forwards
// packets between them as the network that its standard input describes. It says "ready" with the
// descriptors of the two namespaces, and once its standard input's end or a signal stops it,
// what it has counted as one JSON object.
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <ctime>

#include "lab/network.h"
#include "lab/tunnel.h"

namespace {

using lab::nanoseconds;

constexpr size_t biggest_packet = 2048;
constexpr int packets_per_turn = 64;

volatile std::sig_atomic_t stopped = 0;

nanoseconds clock_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return nanoseconds{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// How late packets were handed on. Steps of 0.1 ms; what is later than the last counts there.
class lateness {
 public:
  void add(nanoseconds late) {
    const auto step = static_cast<size_t>(std::max<nanoseconds>(late, 0) / step_size);
    ++counts_[std::min(step, counts_.size() - 1)];
    ++all_;
    worst_ = std::max(worst_, late);
  }
  double percentile_ms(double share) const {
    uint64_t sum = 0;
    for (size_t i = 0; i < counts_.size(); ++i) {
      sum += counts_[i];
      if (static_cast<double>(sum) >= share * static_cast<double>(all_))
        return static_cast<double>(i + 1) / 10;
    }
    return 0;
  }
  double worst_ms() const { return static_cast<double>(worst_) / 1e6; }

 private:
  static constexpr nanoseconds step_size = lab::millisecond / 10;
  std::array<uint64_t, 40'000> counts_{};
  uint64_t all_ = 0;
  nanoseconds worst_ = 0;
};

class emulator {
 public:
  emulator(const lab::network_settings &settings, int server_side, int client_side)
      : network_(settings), server_side_(server_side), client_side_(client_side) {}

  void run(const sigset_t &while_waiting);
  void write_json() const;

 private:
  void receive(int device, bool to_client);
  void deliver();
  nanoseconds now() const { return started_ < 0 ? 0 : clock_now() - started_; }

  lab::network network_;
  const int server_side_, client_side_;
  nanoseconds started_ = -1;  ///< of the clock: the client's first packet
  lateness late_;
  uint64_t refused_ = 0;  ///< packets that a device did not take
};

void emulator::receive(int device, bool to_client) {
  for (int i = 0; i < packets_per_turn; ++i) {
    lab::packet bytes(biggest_packet);
    const ssize_t size = read(device, bytes.data(), bytes.size());
    if (size <= 0) return;
    bytes.resize(static_cast<size_t>(size));
    if (!lab::is_ipv4(bytes)) continue;  // devices greet each other as soon as they are up
    if (started_ < 0) started_ = clock_now();
    network_.take(now(), to_client, std::move(bytes));
  }
}

void emulator::deliver() {
  while (const auto each = network_.pop(now())) {
    const int device = each->to_client ? client_side_ : server_side_;
    if (write(device, each->bytes.data(), each->bytes.size()) < 0) ++refused_;
    late_.add(now() - each->when);
  }
}

void emulator::run(const sigset_t &while_waiting) {
  pollfd files[] = {{server_side_, POLLIN, 0}, {client_side_, POLLIN, 0}, {STDIN_FILENO, 0, 0}};
  while (stopped == 0) {
    const nanoseconds next = network_.next();
    timespec wait{};
    if (next != lab::never) {
      const nanoseconds left = std::max<nanoseconds>(next - now(), 0);
      wait.tv_sec = left / 1'000'000'000;
      wait.tv_nsec = left % 1'000'000'000;
    }
    if (ppoll(files, 3, next == lab::never ? nullptr : &wait, &while_waiting) < 0 && errno != EINTR)
      return;
    if ((files[2].revents & POLLHUP) != 0) return;
    if ((files[0].revents & POLLIN) != 0) receive(server_side_, true);
    if ((files[1].revents & POLLIN) != 0) receive(client_side_, false);
    deliver();
  }
}

void write_samples(const char *name, const std::vector<uint64_t> &samples) {
  std::printf(", \"%s\": [", name);
  for (size_t i = 0; i < samples.size(); ++i)
    std::printf("%s%" PRIu64, i == 0 ? "" : ",", samples[i]);
  std::printf("]");
}

void write_way(const char *name, const lab::way_counts &way) {
  std::printf(", \"%s\": {\"packets\": %" PRIu64 ", \"bytes\": %" PRIu64
              ", \"queue_full\": %" PRIu64 ", \"lost\": %" PRIu64 ", \"outage\": %" PRIu64 "}",
              name, way.packets, way.bytes, way.queue_full, way.lost, way.outage);
}

void emulator::write_json() const {
  std::printf(
      "{\"late_ms\": {\"p50\": %.1f, \"p99\": %.1f, \"p999\": %.1f, \"worst\": %.3f}, "
      "\"refused\": %" PRIu64 ", \"access_full\": %" PRIu64 ", \"sample_ms\": %d, \"links\": [",
      late_.percentile_ms(0.5), late_.percentile_ms(0.99), late_.percentile_ms(0.999),
      late_.worst_ms(), refused_, network_.access_full(),
      static_cast<int>(lab::sample_period / lab::millisecond));
  for (size_t i = 0; i < network_.links(); ++i) {
    const uint32_t address = network_.address(i);
    const lab::link_record &record = network_.record(i);
    std::printf("%s\n{\"address\": \"%u.%u.%u.%u\"", i == 0 ? "" : ",", address >> 24,
                address >> 16 & 255, address >> 8 & 255, address & 255);
    write_way("down", record.down);
    write_way("up", record.up);
    write_samples("sent", record.sent);
    write_samples("queued", record.queued);
    std::printf("}");
  }
  std::printf("]}\n");
}

// Signals arrive only while it waits, so that none is missed.
sigset_t catch_signals() {
  struct sigaction action {};
  action.sa_handler = [](int) { stopped = 1; };
  sigset_t held, former;
  sigemptyset(&held);
  for (const int number : {SIGTERM, SIGINT}) {
    sigaction(number, &action, nullptr);
    sigaddset(&held, number);
  }
  sigprocmask(SIG_BLOCK, &held, &former);
  return former;
}

// Packets are to leave on time whatever else runs on the machine.
void be_prompt() {
  prctl(PR_SET_TIMERSLACK, 1UL);
  const sched_param first{.sched_priority = 1};
  if (sched_setscheduler(0, SCHED_FIFO, &first) != 0) std::perror("lab-emulator: not in real time");
}

int fail(const std::string &what) {
  std::fprintf(stderr, "lab-emulator: %s\n", what.c_str());
  return 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) return fail("usage: lab-emulator SETTINGS, standard input open until the end");
  std::FILE *const file = std::fopen(argv[1], "re");
  if (file == nullptr) return fail(std::string("cannot read ") + argv[1]);
  lab::network_settings settings;
  const std::string problem = lab::read_settings(file, &settings);
  std::fclose(file);
  if (!problem.empty()) return fail(problem);
  const lab::tunnel servers("servers"), client("client");
  if (!servers.problem().empty()) return fail(servers.problem());
  if (!client.problem().empty()) return fail(client.problem());
  const sigset_t while_waiting = catch_signals();
  be_prompt();
  std::printf("ready %d %d\n", servers.network_namespace(), client.network_namespace());
  std::fflush(stdout);
  emulator all(settings, servers.device(), client.device());
  all.run(while_waiting);
  all.write_json();
  return 0;
}
