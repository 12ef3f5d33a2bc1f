// Probe instances and their worker threads.
#include "eprobe/probe.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "eprobe/rac_connection.h"
#include "eprobe/rac_handle.h"
#include "eprobe/rac_operate.h"
#include "eprobe/rac_process_cycle.h"
#include "eprobe/rac_time.h"
#include "eprobe/rac_timer.h"
#include "eprobe/rac_wake.h"

namespace {

constexpr int STARTUP_FAILED = 2;  ///< exit status

bool make_locks(rac_core *core) {
  core->hook_lock = rac_mutex_init();
  core->monitor_lock = rac_mutex_init();
  core->state_lock = rac_mutex_init();
  core->state_changed = rac_cond_init();
  return core->hook_lock != nullptr && core->monitor_lock != nullptr &&
         core->state_lock != nullptr && core->state_changed != nullptr;
}

/// Frees an instance whose bases are done.
void destroy(rac_core *core) {
  core->bases.reset();
  rac_connection_destroy(core);
  rac_timer_destroy(core);
  rac_operate_destroy(core);
  rac_mutex_destroy(core->hook_lock);
  rac_mutex_destroy(core->monitor_lock);
  rac_mutex_destroy(core->state_lock);
  rac_cond_destroy(core->state_changed);
  delete core;
}

/// Locks and pools, without bases; NULL on failure.
rac_core *make_core(uint32_t nthreads) {
  auto *core = new (std::nothrow) rac_core{};
  if (core == nullptr) return nullptr;
  core->nbases = std::clamp<uint32_t>(nthreads, 1, PROBE_MAX_THREADS);
  core->conn_rr.store(-1, std::memory_order_relaxed);
  core->timer_rr.store(-1, std::memory_order_relaxed);
  core->connection_n = PROBE_MAX_CONNECTIONS;
  core->timer_n = PROBE_MAX_TIMERS;
  core->operate_n = RAC_OPERATIONS;
  core->model_name = "select";
  // Before the pools: the pool of timers gives each base a spare one.
  core->bases.reset(new (std::nothrow) rac_base[core->nbases]());
  if (core->bases != nullptr && make_locks(core) && rac_operate_init(core) == 0 &&
      rac_connection_init(core) == 0 && rac_timer_init(core) == 0 && rac_register_core(core) == 0)
    return core;
  destroy(core);
  return nullptr;
}

int make_bases(rac_core *core) {
  for (uint32_t i = 0; i < core->nbases; ++i) {
    core->bases[i].index = i;
    if (rac_base_init(core, &core->bases[i]) == 0) continue;
    for (uint32_t made = 0; made <= i; ++made) rac_base_done(&core->bases[made]);
    return -1;
  }
  rac_time_update(0, 0);
  return 0;
}

bool on_worker_of(const rac_core *core) {
  return rac_this_base != nullptr && rac_this_base->core == core;
}

void *worker_main(void *arg) {
  auto *base = static_cast<rac_base *>(arg);
  char name[16];
  std::snprintf(name, sizeof name, "c2ms-%lu", static_cast<unsigned long>(base->index));
  pthread_setname_np(pthread_self(), name);
  rac_base_cycle(base);
  rac_guard guard(base->core->state_lock);
  base->running = false;
  rac_cond_broadcast(base->core->state_changed);
  return nullptr;
}

/// Signals are the program's own business: the workers inherit a mask that blocks them all.
/// False when one cannot be made; those before it run.
bool start_workers(rac_core *core) {
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  bool all_run = true;
  {
    rac_guard guard(core->state_lock);
    for (uint32_t i = 0; i < core->nbases && all_run; ++i) {
      rac_base *base = &core->bases[i];
      base->running = true;
      all_run = rac_create_thread(&base->thread, worker_main, base) == 0;
      base->running = all_run;
      core->threads = all_run ? i + 1 : i;
    }
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return all_run;
}

/// True for the one caller that is to join; the others wait here until that is done.
bool enter_join(rac_core *core) {
  rac_guard guard(core->state_lock);
  if (core->threads == 0) return false;
  if (!core->joining) {
    core->joining = true;
    return true;
  }
  // Threads can be joined once: the others wait for a count that the joiner raises.
  const uint32_t joins = core->joins;
  while (core->joins == joins) rac_cond_wait(core->state_changed, core->state_lock);
  return false;
}

void join_workers(rac_core *core) {
  if (!enter_join(core)) return;
  uint32_t threads;
  {
    rac_guard guard(core->state_lock);
    threads = core->threads;
  }
  for (uint32_t i = 0; i < threads; ++i) pthread_join(core->bases[i].thread, nullptr);
  rac_guard guard(core->state_lock);
  core->threads = 0;
  core->joining = false;
  ++core->joins;
  rac_cond_broadcast(core->state_changed);
}

void stop_monitor(rac_core *core) {
  rac_guard guard(core->monitor_lock);
  if (core->monitor_on == 0) return;
  core->monitor_on = 0;
  StopTimer(core->monitor_timer);
  core->monitor_timer = nullptr;
  std::fclose(core->monitor_file);
  core->monitor_file = nullptr;
  core->monitor_period_ms = 0;
}

void close_devices(rac_core *core) {
  for (uint32_t slot = 0; slot < core->connection_n; ++slot) {
    rac_connection *c = &core->connections[slot];
    const rac_base *base = c->base.load(std::memory_order_relaxed);
    if (base == nullptr || c == base->notify_connection) continue;
    if (rac_life_of(c->ident.load(std::memory_order_relaxed)) == RAC_FREE) continue;
    rac_close_connection(core, c);
  }
}

/// Nobody repeats this wake-up later: the worker that would do so stops itself.
void wake_to_stop(rac_base *base) {
  while (base->notify_send_fd != -1 && rac_base_notify(base) != 0) poll(nullptr, 0, 1);
}

/// Asks the base for the end of a turn that begins after this; the number to wait for.
uint32_t ask_for_turn(rac_base *base) {
  // Released for the turn that reads it: what the caller did before is done by its end.
  const uint32_t turn = base->barrier_asked.fetch_add(1, std::memory_order_acq_rel) + 1;
  rac_base_notify(base);
  return turn;
}

void wait_for_turn(rac_core *core, const rac_base *base, uint32_t turn) {
  rac_guard guard(core->state_lock);
  while (base->running && static_cast<int32_t>(base->barrier_done - turn) < 0)
    rac_cond_wait(core->state_changed, core->state_lock);
}

}  // namespace

rac_core *probe_init(int, uint32_t nthreads) {
  rac_core *core = make_core(nthreads);
  if (core != nullptr && make_bases(core) != 0) std::exit(STARTUP_FAILED);
  return core;
}

rac_core *probe_create(uint32_t nthreads) {
  rac_core *core = make_core(nthreads);
  if (core == nullptr || make_bases(core) == 0) return core;
  rac_unregister_core(core);
  destroy(core);
  return nullptr;
}

namespace {

constexpr int NO_THREAD = -3;

int start(rac_core *core, int nowait) {
  if (core == nullptr) return -1;
  const uint32_t return_at_once = static_cast<uint32_t>(nowait) & 0xff;
  // A worker cannot wait for its own end, and a run that it is still part of must not meet the
  // next.
  if (on_worker_of(core))
    return return_at_once != 0 && core->started.load(std::memory_order_acquire) != 0 ? 0 : -2;
  core->nowait.store(return_at_once, std::memory_order_release);
  // One of several starters gets on; sees all that the StopProbe before it did.
  if (core->started.exchange(1, std::memory_order_acq_rel) != 0) {
    if (return_at_once == 0) join_workers(core);
    return 0;
  }
  join_workers(core);  // of a run that was stopped from a callback and not waited for
  // Read by rac_base_cycle, of threads that are made after this.
  core->stop.store(0, std::memory_order_release);
  core->exiting.store(0, std::memory_order_release);
  rac_time_update(0, 0);
  if (rac_init_threads() == -1 || !start_workers(core)) return NO_THREAD;
  if (return_at_once == 0) join_workers(core);
  return 0;
}

}  // namespace

int StartProbe(rac_core *core, int nowait) {
  const int result = start(core, nowait);
  if (result == NO_THREAD) std::exit(STARTUP_FAILED);
  return result;
}

int probe_start(rac_core *core) {
  const int result = start(core, 1);
  if (result == NO_THREAD) StopProbe(core);  // those that run
  return result;
}

int StopProbe(rac_core *core) {
  if (core == nullptr) return -1;
  // Acquired by rac_base_cycle. The first of several stoppers does the work.
  if (core->stop.exchange(1, std::memory_order_acq_rel) != 0) return 0;
  core->exiting.store(1, std::memory_order_release);
  for (uint32_t i = 0; i < core->nbases; ++i) wake_to_stop(&core->bases[i]);
  if (core->nowait.load(std::memory_order_acquire) != 0 && !on_worker_of(core)) join_workers(core);
  // Last, for the exchange in StartProbe: the run is over for whoever starts the next.
  core->started.store(0, std::memory_order_release);
  return 0;
}

int probe_cleanup(rac_core *core) {
  if (core == nullptr) return 0;
  StopProbe(core);
  join_workers(core);
  stop_monitor(core);
  close_devices(core);
  rac_unregister_core(core);
  for (uint32_t i = 0; i < core->nbases; ++i) rac_base_done(&core->bases[i]);
  destroy(core);
  return 0;
}

int probe_barrier(rac_core *core) {
  if (core == nullptr) return -1;
  if (on_worker_of(core)) return -2;
  std::array<uint32_t, PROBE_MAX_THREADS> turns;
  for (uint32_t i = 0; i < core->nbases; ++i) turns[i] = ask_for_turn(&core->bases[i]);
  for (uint32_t i = 0; i < core->nbases; ++i) wait_for_turn(core, &core->bases[i], turns[i]);
  return 0;
}
