// The life of a context: start-up, configuration, tear-down. c2ms.h describes the calls.
#include "c2ms.h"
#include "c2ms/core/context.h"
#include "c2ms/core/diag.h"
#include "c2ms/core/identity.h"
#include "c2ms/core/pooled_parts.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"
#include "c2ms/core/wake.h"
#include "c2ms/fetch/node_record.h"
#include "c2ms/fetch/unit.h"
#include "c2ms/ring/pack.h"
#include "c2ms/session/object.h"
#include "c2ms/session/pump.h"

#include <signal.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "adif/fileutil.h"
#include "adif/kalloc.h"
#include "adif/timetext.h"
#include "adif/tsock.h"
#include "crypto/gcrypt_ready.h"

namespace {

using namespace c2ms;

constexpr char section[] = "Communication Option";

int32_t configured_seconds(conf_mgmt *conf, const char *key, int32_t fallback) {
  const int32_t value = conf_get_int(conf, section, key);
  return value < 1 ? fallback : std::min(value, max_period_s);
}

void take_configuration(c2ms_mgmt *mgmt) REQUIRES(mgmt->conf_lock) {
  const char *server = conf_get_string(mgmt->conf, section, "Entry Server");
  if (server == nullptr || *server == '\0') server = g_entry_server;
  std::snprintf(mgmt->entry_server.text, sizeof mgmt->entry_server.text, "%s",
                server != nullptr ? server : "");
  const auto seconds = [mgmt](const char *key, int32_t fallback) REQUIRES(mgmt->conf_lock) {
    return configured_seconds(mgmt->conf, key, fallback);
  };
  mgmt->build_tcp_max_time = seconds("Build TCP Max Time", build_tcp_max_time_s);
  mgmt->conn_check_time = seconds("Cyclic Connection Check Time", conn_check_time_s);
  mgmt->sess_check_time = seconds("Session Check Time", sess_check_time_s);
  mgmt->speed_count_period = speed_count_period_ms;
}

template <size_t N>
block_pool *make_pool(pool_unit_fn init, pool_unit_fn free_unit, size_t size, int escalate,
                      const pool_span (&watched)[N]) {
  block_pool *const pool = BPoolInit(nullptr);
  setInitFunc(pool, init);
  setFreeFunc(pool, free_unit);
  setUnitSize(pool, static_cast<int>(size));
  setEscalate(pool, escalate);
  setWatchedSpans(pool, watched, static_cast<int>(N));
  setAutoAlloc(pool, 1);
  return pool;
}

template <class Record, int (*Fn)(Record *)>
int on_record(void *unit) {
  return Fn(static_cast<Record *>(unit));
}

bool make_pools(c2ms_mgmt *mgmt) {
  mgmt->unit_pool =
      make_pool(on_record<c2ms_unit, c2ms_unit_init>, on_record<c2ms_unit, c2ms_unit_free>,
                sizeof(c2ms_unit), 8, unit_watched);
  mgmt->node_pool =
      make_pool(on_record<c2ms_node, c2ms_node_init>, on_record<c2ms_node, c2ms_node_free>,
                sizeof(c2ms_node), 8, node_watched);
  mgmt->sess_pool =
      make_pool(on_record<c2ms_sess, c2ms_sess_init>, on_record<c2ms_sess, c2ms_sess_free>,
                sizeof(c2ms_sess), 2, sess_watched);
  mgmt->pack_pool =
      make_pool(on_record<c2ms_pack, c2ms_pack_init>, on_record<c2ms_pack, c2ms_pack_free>,
                sizeof(c2ms_pack), 16, pack_watched);
  return mgmt->unit_pool != nullptr && mgmt->node_pool != nullptr && mgmt->sess_pool != nullptr &&
         mgmt->pack_pool != nullptr;
}

void drop_pool(block_pool **pool) {
  block_pool *const old = *pool;
  *pool = nullptr;  // records that come back from now on are freed
  BPoolCleanup(old);
}

// The arena is a mapping of its own: memory is had when it is touched, and given back to the
// system.
uint8_t *map_arena(int64_t bytes) {
  void *const at = mmap(nullptr, static_cast<size_t>(bytes), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return at == MAP_FAILED ? nullptr : static_cast<uint8_t *>(at);
}

c2ms_mgmt *make_block(int64_t arena_bytes) {
  void *const block = kzalloc_dbg(sizeof(c2ms_mgmt));
  if (block == nullptr) return nullptr;
  uint8_t *const arena = map_arena(arena_bytes);
  if (arena == nullptr) {
    kfree_dbg(block);
    return nullptr;
  }
  c2ms_mgmt *const mgmt = new (block) c2ms_mgmt();
  mgmt->arena = arena;
  mgmt->mem_size = arena_bytes;
  mgmt->mem = mem_unit_init(arena, arena_bytes);
  return mgmt;
}

void destroy(c2ms_mgmt *mgmt) {
  munmap(mgmt->arena, static_cast<size_t>(mgmt->mem_size));
  mgmt->~c2ms_mgmt();
  kfree_dbg(mgmt);
}

bool make_registries(c2ms_mgmt *mgmt) {
  {
    const adif::Guard lock(mgmt->node_lock);
    mgmt->nodes = sk_new(nullptr);
    if (mgmt->nodes == nullptr) return false;
  }
  const adif::Guard lock(mgmt->sess_lock);
  mgmt->sessions = sk_new(nullptr);
  return mgmt->sessions != nullptr;
}

void free_registries(c2ms_mgmt *mgmt) {
  {
    const adif::Guard lock(mgmt->node_lock);
    sk_free(mgmt->nodes);
  }
  const adif::Guard lock(mgmt->sess_lock);
  sk_free(mgmt->sessions);
}

c2ms_sess *any_session(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->sess_lock);
  return static_cast<c2ms_sess *>(sk_value(mgmt->sessions, 0));
}

c2ms_node *any_node(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->node_lock);
  return static_cast<c2ms_node *>(sk_value(mgmt->nodes, 0));
}

void drop_configuration(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->conf_lock);
  conf_mgmt_cleanup(mgmt->conf);
}

c2ms_sess *first_session_after(c2ms_mgmt *mgmt, uint32_t id) {
  const adif::Guard lock(mgmt->sess_lock);
  for (int i = 0; i < sk_num(mgmt->sessions); ++i) {
    auto *const sess = static_cast<c2ms_sess *>(sk_value(mgmt->sessions, i));
    if (sess->sess_id > id) return sess;
  }
  return nullptr;
}

// Closing sessions refuse new calls; the waiting ones are woken and return.
void drain_callers(c2ms_mgmt *mgmt) {
  mgmt->closing.store(true);
  uint32_t last = 0;
  while (c2ms_sess *const sess = first_session_after(mgmt, last)) {
    last = sess->sess_id;
    c2ms_life live = c2ms_life::live;
    sess->life.compare_exchange_strong(live, c2ms_life::closing);
    wake_waiters(sess);
    wait_idle(sess);
  }
  while (mgmt->calls.load() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Gives agent and report server some time to hear of the sessions that have ended.
void await_farewells(c2ms_mgmt *mgmt) {
  const auto end = steady::now() + std::chrono::milliseconds(mgmt->report_waits.farewell_ms);
  while (mgmt->farewells.load() > 0 && steady::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// 0 when the name is not found, which nobody can be reached at.
uint32_t address_of(const char *host) {
  const uint32_t address = sock_get_hostip(host);
  return address == SOCK_NO_ADDRESS ? 0 : address;
}

// False without memory for the file's contents; what was read before stays then.
bool read_configuration(c2ms_mgmt *mgmt, conf_mgmt *(*read)(const char *path)) {
  const bool has_file = is_regular_file(mgmt->conf_path);
  // Read before the lock is taken: a malformed file is told to the player's function.
  conf_mgmt *fresh = has_file ? read(mgmt->conf_path) : nullptr;
  const bool done = !has_file || fresh != nullptr;
  {
    const adif::Guard lock(mgmt->conf_lock);
    if (fresh != nullptr) std::swap(fresh, mgmt->conf);
    take_configuration(mgmt);
  }
  conf_mgmt_cleanup(fresh);
  return done;
}

// What a context is started with.
struct start {
  const char *conf_path = nullptr;
  uint64_t user = 0;
  const uint8_t *hid = nullptr;
  int64_t arena_bytes = min_arena_bytes;
  uint32_t threads = engine_threads;
  bool reports = true;
  bool may_exit = true;
};

// Tells why there is no context.
c2ms_mgmt *refuse(int32_t code, int32_t *err, const char *why) {
  *err = code;
  diag("c2ms_mgmt_init: %s\n", why);
  diag_deliver();
  return nullptr;
}

// Everything of a context whose engine has stopped, or has never been started.
void free_context(c2ms_mgmt *mgmt) {
  drop_pool(&mgmt->pack_pool);
  drop_pool(&mgmt->unit_pool);
  drop_pool(&mgmt->node_pool);
  while (c2ms_sess *sess = any_session(mgmt)) c2ms_sess_free(sess);
  while (c2ms_node *node = any_node(mgmt)) c2ms_node_free(node);
  drop_pool(&mgmt->sess_pool);
  free_registries(mgmt);
  probe_cleanup(mgmt->probe);
  drop_configuration(mgmt);
  destroy(mgmt);
}

void take_identity(c2ms_mgmt *mgmt, const start &with) {
  std::memcpy(mgmt->des_key, "QaZiXuRo", sizeof mgmt->des_key);
  mgmt->oemid = g_oemid;
  mgmt->vendorid = g_vendorid;
  mgmt->build_time = static_cast<int32_t>(get_time_from_string(g_build_time, -1));
  mgmt->version = g_version;
  mgmt->proto_ver = g_proto_ver;
  mgmt->uid_low = static_cast<uint32_t>(with.user);
  mgmt->uid_high = static_cast<uint32_t>(with.user >> 32);
  c2ms_mgmt_readhid(mgmt);
  if (with.hid != nullptr) set_hardware_id(mgmt, with.hid, 20);
}

// Everything but the threads. NULL, and why.
c2ms_mgmt *make_context(const start &with, int32_t *err) {
  // Without MD5 every session would have the same token.
  if (!crypto::gcrypt_works()) {
    return refuse(C2MS_NO_CIPHERS, err, "libgcrypt is too old, or refuses DES or MD5");
  }
  c2ms_mgmt *const mgmt = make_block(with.arena_bytes);
  if (mgmt == nullptr) return refuse(C2MS_NO_MEMORY, err, "no memory");
  mgmt->on_event = c2ms_pump;
  mgmt->reports = with.reports;
  mgmt->may_exit = with.may_exit;
  mgmt->probe = probe_create(with.threads);
  if (mgmt->probe == nullptr) {
    destroy(mgmt);
    return refuse(C2MS_NO_ENGINE, err, "no memory or no descriptors for the engine");
  }
  if (with.conf_path != nullptr) {
    std::strncpy(mgmt->conf_path, with.conf_path, sizeof mgmt->conf_path - 1);
  }
  take_identity(mgmt, with);
  if (with.reports) mgmt->perf_server_ip = address_of(g_perf_server);
  if (!make_registries(mgmt) || !make_pools(mgmt)) {
    free_context(mgmt);
    return refuse(C2MS_NO_MEMORY, err, "no memory");
  }
  return mgmt;
}

// The process's own, once: a player that has set them since then keeps what it has set.
void ignore_signals() {
  static std::once_flag done;
  std::call_once(done, [] {
    for (const int number : {SIGCHLD, SIGTSTP, SIGTTOU, SIGPIPE, SIGTTIN}) signal(number, SIG_IGN);
  });
}

constexpr uint32_t known_flags = C2MS_SET_SIGNALS | C2MS_QUIET | C2MS_NO_REPORTS;
constexpr uint64_t most_memory = sizeof(void *) == 4 ? INT32_MAX : uint64_t{32} << 30;

// The player's structure, which may be of another version: a shorter one ends in zeros. False when
// it can't be meant.
bool take_options(const c2ms_options *given, c2ms_options *out) {
  *out = {};
  if (given == nullptr) return true;
  if (given->struct_size < sizeof given->struct_size) return false;
  std::memcpy(out, given, std::min<size_t>(given->struct_size, sizeof *out));
  return (out->flags & ~known_flags) == 0 && out->threads <= engine_threads &&
         out->memory <= most_memory;
}

uint32_t threads_of(const c2ms_options &options) {
  if (options.threads != 0) return options.threads;
  return std::clamp(std::thread::hardware_concurrency(), 1U, engine_threads);
}

// Sessions that were given their own share lose no bytes of it to the headers of their blocks.
constexpr int64_t arena_slack = 64 * 1024;

}  // namespace

c2ms_mgmt *c2ms_mgmt_init(const char *conf_path, uint32_t uid_low, uint32_t uid_high,
                          const uint8_t *hid, int32_t mem_size) {
  diag_new_context(false);
  start with;
  with.conf_path = conf_path;
  with.user = uint64_t{uid_high} << 32 | uid_low;
  with.hid = hid;
  with.arena_bytes = std::max(mem_size, min_arena_bytes);
  int32_t err;
  c2ms_mgmt *const mgmt = make_context(with, &err);
  if (mgmt == nullptr) return nullptr;
  c2ms_mgmt_readconf(mgmt);
  ignore_signals();
  StartProbe(mgmt->probe, 1);
  diag_deliver();
  return mgmt;
}

c2ms_mgmt *c2ms_mgmt_start(const c2ms_options *options, int32_t *err) {
  int32_t ignored;
  int32_t &error = err != nullptr ? *err : ignored;
  error = 0;
  c2ms_options with;
  if (!take_options(options, &with)) {
    error = C2MS_INVALID_PARAMETER;
    return nullptr;
  }
  diag_new_context((with.flags & C2MS_QUIET) != 0);
  const auto memory = static_cast<int64_t>(with.memory);
  c2ms_mgmt *const mgmt = make_context({with.conf_path, with.user, with.hid,
                                        std::max<int64_t>(memory, min_arena_bytes) + arena_slack,
                                        threads_of(with), (with.flags & C2MS_NO_REPORTS) == 0},
                                       &error);
  if (mgmt == nullptr) return nullptr;
  if (!read_configuration(mgmt, conf_mgmt_try_init)) {
    free_context(mgmt);
    return refuse(C2MS_NO_MEMORY, &error, "no memory for the configuration file");
  }
  if (probe_start(mgmt->probe) != 0) {
    free_context(mgmt);
    return refuse(C2MS_NO_ENGINE, &error, "no thread can be had");
  }
  if ((with.flags & C2MS_SET_SIGNALS) != 0) ignore_signals();
  diag_deliver();
  return mgmt;
}

int c2ms_mgmt_clean(c2ms_mgmt *mgmt) {
  if (mgmt == nullptr) return -1;
  await_farewells(mgmt);
  drain_callers(mgmt);
  mgmt->openers.stop();
  mgmt->closers.stop();
  const bool untold = mgmt->untold || mgmt->farewells > 0;  // those that had not begun were dropped
  mgmt->resolver.stop();
  mgmt->perf_reporter.stop();
  mgmt->auth_reporter.stop();
  StopProbe(mgmt->probe);
  free_context(mgmt);  // the callers have left, too: nobody else is here any more
  diag_deliver();
  return untold ? 1 : 0;
}

int c2ms_mgmt_readconf(c2ms_mgmt *mgmt) {
  if (mgmt == nullptr) return -1;
  read_configuration(mgmt, mgmt->may_exit ? conf_mgmt_init : conf_mgmt_try_init);
  return 0;
}
