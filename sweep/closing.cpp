// The end from another thread, in each phase of an opening, of an index's opening and of a read:
// a call that waits returns, and nothing is left. Servers and library share the case's process.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <thread>

#include "cases.h"
#include "play.h"
#include "support/library.h"
#include "support/slack.h"

namespace sweep {

namespace {

using refserver::entry_server;
using refserver::fault_kind;
using support::clock;
using support::milliseconds;

constexpr int look_up_ms = 500;
constexpr int longest_ms = 200;  // beside what a look-up that is under way takes

/// A port at which connections hang: its listener's queue is full.
class Hole {
 public:
  Hole() {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *const generic = reinterpret_cast<sockaddr *>(&name);
    fds_[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t size = sizeof name;
    bind(fds_[0], generic, size);
    listen(fds_[0], 0);
    getsockname(fds_[0], generic, &size);
    port = ntohs(name.sin_port);
    for (int i = 1; i < count; ++i) {
      fds_[i] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      connect(fds_[i], generic, size);
    }
  }
  ~Hole() {
    for (const int fd : fds_) ::close(fd);
  }
  Hole(const Hole &) = delete;
  Hole &operator=(const Hole &) = delete;
  int port = 0;

 private:
  static constexpr int count = 4;
  int fds_[count];
};

void lead_into(const Hole &hole, int straight) {
  plan::straight = straight;
  plan::hole = hole.port;
}

void mute_nodes(World &world, uint8_t on) {
  for (int node = 0; node < 2; ++node)
    world.server.set_fault(node, {.kind = fault_kind::mute, .on = on});
}

/// One of them has kept silent: which one is asked first is open.
bool nodes_muted(World &world) {
  return world.server.injected(0, fault_kind::mute) + world.server.injected(1, fault_kind::mute) >
         0;
}

/// What an opening meets so that it stays in its phase, and the sign that it is there.
struct Phase {
  const char *name;
  void (*hold)(World &world, const Hole &hole);
  bool (*reached)(World &world);
};

const Phase phases[] = {
    {"resolving", [](World &, const Hole &) { plan::slow_names = look_up_ms; },
     [](World &) { return plan::looking_up.load(); }},
    {"entry-connecting", [](World &, const Hole &hole) { lead_into(hole, 0); },
     [](World &) { return plan::straight.load() < 0; }},
    {"asked",
     [](World &world, const Hole &) {
       world.server.set_fault(entry_server, {.kind = fault_kind::mute});
     },
     [](World &world) { return world.server.injected(entry_server, fault_kind::mute) > 0; }},
    {"nodes-connecting", [](World &, const Hole &hole) { lead_into(hole, 1); },
     [](World &) { return plan::straight.load() < 0; }},
    {"listing", [](World &world, const Hole &) { mute_nodes(world, refserver::on_srvlist); },
     [](World &world) { return nodes_muted(world); }},
    {"describing", [](World &world, const Hole &) { mute_nodes(world, refserver::on_desc); },
     [](World &world) { return nodes_muted(world); }},
};

refserver::server_options options_for(const Phase &phase) {
  const bool lists = std::strcmp(phase.name, "listing") == 0;
  const refserver::node_options node{.type = static_cast<uint8_t>(lists ? 3 : 2)};
  return {.nodes = 2, .node = {node, node}, .keep_log = false};
}

/// Servers, library and what it held when it was idle; at the end everything must be as before.
class Stage {
 public:
  Stage(Report &report, refserver::server_options options = {.nodes = 2, .keep_log = false})
      : report_(report) {
    world.emplace(std::move(options));
    hole.emplace();
    if (!world->start()) report_.find("no server");
    library.emplace();
    support::shorten_waits(library->get());
  }
  ~Stage() {
    plan::hole = 0;
    plan::slow_names = 0;
    support::Findings findings;
    if (library->get() != nullptr) library->check(findings);
    library.reset();
    world.reset();
    hole.reset();
    support::check_gone(findings, before_);
    report_.find(std::move(findings));
  }
  Stage(const Stage &) = delete;
  Stage &operator=(const Stage &) = delete;

  /// Waits until the sign is there; then a little, so that the call sleeps.
  void await(const Phase &phase) {
    const auto end = clock::now() + std::chrono::seconds(10);
    while (!phase.reached(*world) && clock::now() < end)
      std::this_thread::sleep_for(milliseconds(1));
    if (!phase.reached(*world)) report_.find("the phase is not reached");
    std::this_thread::sleep_for(milliseconds(50));
  }

  /// Makes a call that must be back in time.
  void timed(const char *name, int allowed_ms, const std::function<int()> &call) {
    report_.doing = name;
    const auto begin = clock::now();
    const int result = call();
    const double took_ms = 1000 * support::seconds_since(begin);
    if (result != 0) report_.find("%s gave %d", name, result);
    if (took_ms > allowed_ms * support::slack()) report_.find("%s took %.0f ms", name, took_ms);
  }

  std::optional<World> world;
  std::optional<Hole> hole;
  std::optional<support::Library> library;

 private:
  Report &report_;
  const support::Holdings before_ = support::holdings_now();
};

int allowed_in(const Phase &phase) {
  return longest_ms + (std::strcmp(phase.name, "resolving") == 0 ? look_up_ms : 0);
}

/// The library is stopped while another thread opens.
void stop_while_opening(Report &report, const Phase &phase) {
  Stage stage(report, options_for(phase));
  phase.hold(*stage.world, *stage.hole);
  std::thread opener([&] {
    int32_t error = 0;
    c2ms_sess *const sess =
        c2ms_sess_open(stage.library->get(), named(stage.world->film.url).c_str(), &error);
    if (sess != nullptr || error != C2MS_CLOSED) report.find("the open gave %d", error);
  });
  stage.await(phase);
  stage.timed("stop", allowed_in(phase), [&] { return stage.library->clean(); });
  opener.join();
}

/// A session that asks for its servers again, all of them lost, is closed.
void close_while_reopening(Report &report, const Phase &phase) {
  Stage stage(report, options_for(phase));
  int32_t error = 0;
  c2ms_sess *const sess =
      c2ms_sess_open(stage.library->get(), named(stage.world->film.url).c_str(), &error);
  if (sess == nullptr) return report.find("the open gave %d", error);
  stage.world->server.kill_all(true);
  phase.hold(*stage.world, *stage.hole);
  stage.world->server.revive_all();
  std::thread other([sess] { c2ms_sess_reopen(sess); });
  stage.await(phase);
  stage.timed("close", allowed_in(phase), [&] { return c2ms_sess_close(sess); });
  other.join();
}

enum class end_by : uint8_t { close, cancel, stop };
constexpr const char *end_names[] = {"close", "cancel", "stop"};

/// A call that waits for its first bytes.
using waiting_call = int (*)(c2ms_sess *sess);

void end_waiting(Report &report, end_by how, waiting_call call) {
  Stage stage(report);
  int32_t error = 0;
  c2ms_sess *const sess =
      c2ms_sess_open(stage.library->get(), stage.world->movie.url.c_str(), &error);
  if (sess == nullptr) return report.find("the open gave %d", error);
  mute_nodes(*stage.world, refserver::on_media);
  c2ms_sess_cache_init(sess, c2ms_sess_pack_size(sess, 8192));
  c2ms_sess_range(sess, 0, stage.world->movie.bytes.size());
  std::thread waiter([&] {
    if (const int result = call(sess); result != C2MS_CLOSED)
      report.find("the waiting call gave %d", result);
  });
  stage.await({"", nullptr, [](World &world) { return nodes_muted(world); }});
  if (how == end_by::cancel) {
    stage.timed("cancel", longest_ms, [&] { return c2ms_sess_cancel(sess, 1); });
    stage.timed("the cancelled call", longest_ms, [&] { return waiter.join(), 0; });
  }
  if (how == end_by::stop) {
    stage.timed("stop", longest_ms, [&] { return stage.library->clean(); });
  } else {
    stage.timed("close", longest_ms, [&] { return c2ms_sess_close(sess); });
  }
  if (waiter.joinable()) waiter.join();
}

int read_waiting(c2ms_sess *sess) {
  uint8_t buffer[1000];
  return c2ms_sess_read(sess, buffer, sizeof buffer, 0);
}

int open_index_waiting(c2ms_sess *sess) {
  return c2ms_sess_idx_open(sess, nullptr);
}

}  // namespace

void add_closing(std::vector<Case> *cases) {
  for (const Phase &phase : phases) {
    cases->push_back({std::string("closing/stop/") + phase.name,
                      [&phase](Report &report) { stop_while_opening(report, phase); }});
    cases->push_back({std::string("closing/close/") + phase.name,
                      [&phase](Report &report) { close_while_reopening(report, phase); }});
  }
  for (const end_by how : {end_by::close, end_by::cancel, end_by::stop}) {
    const std::string stem = std::string("closing/") + end_names[static_cast<int>(how)];
    cases->push_back(
        {stem + "/first-pack", [how](Report &report) { end_waiting(report, how, read_waiting); }});
    cases->push_back(
        {stem + "/index", [how](Report &report) { end_waiting(report, how, open_index_waiting); }});
  }
}

}  // namespace sweep
