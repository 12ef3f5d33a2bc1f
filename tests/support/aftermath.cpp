// See aftermath.h.
#include "support/aftermath.h"

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "c2ms/core/context.h"
#include "c2ms/core/records.h"
#include "eprobe/rac_core.h"
#include "support/slack.h"

namespace support {

namespace {

// The first thread of a process brings the thread sanitizer's own with it, and one that was joined
// is listed for a moment longer.
void start_first_thread() {
  std::atomic<pid_t> thread{0};
  std::thread([&] { thread = gettid(); }).join();
  const std::string listed = "/proc/self/task/" + std::to_string(thread);
  while (access(listed.c_str(), F_OK) == 0) std::this_thread::yield();
}

int entries_of(const char *path) {
  int count = 0;
  DIR *const dir = opendir(path);
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

template <class Holds>
bool soon(Holds holds) {
  const auto end = clock::now() + milliseconds(static_cast<int>(5000 * slack()));
  while (!holds()) {
    if (clock::now() > end) return false;
    std::this_thread::sleep_for(milliseconds(1));
  }
  return true;
}

void check_pool(Findings &findings, const char *name, block_pool *pool) {
  int allocated = 0, free = 0, in_use = 0;
  getProfile(pool, &allocated, &free, &in_use);
  if (in_use != 0 || allocated != free || !adif::pool_invariant(pool))
    findings.add("%s pool: %d allocated, %d free, %d in use", name, allocated, free, in_use);
}

}  // namespace

Holdings holdings_now() {
  static std::once_flag first;
  std::call_once(first, start_first_thread);
  Holdings now;
  now.descriptors = entries_of("/proc/self/fd");
  now.threads = entries_of("/proc/self/task");
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
  const struct mallinfo2 heap = mallinfo2();
  now.heap_bytes = static_cast<int64_t>(heap.uordblks + heap.hblkhd);
#endif
  if (FILE *const file = fopen("/proc/self/statm", "re"); file != nullptr) {
    long size = 0, resident = 0;
    if (fscanf(file, "%ld %ld", &size, &resident) == 2)
      now.resident_bytes = int64_t{resident} * sysconf(_SC_PAGESIZE);
    fclose(file);
  }
  return now;
}

Idle idle_of(c2ms_mgmt *mgmt) {
  const rac_core *const core = mgmt->probe;
  return {c2ms_mem_avail(mgmt), core->free_connection_n.load(), core->free_timer_n.load()};
}

void check_idle(Findings &findings, c2ms_mgmt *mgmt, const Idle &before) {
  // The ends of sessions may still be told to agent and report server.
  soon([&] {
    int allocated, free, in_use = 0;
    getProfile(mgmt->sess_pool, &allocated, &free, &in_use);
    return in_use == 0;
  });
  check_pool(findings, "session", mgmt->sess_pool);
  check_pool(findings, "node", mgmt->node_pool);
  check_pool(findings, "unit", mgmt->unit_pool);
  check_pool(findings, "pack", mgmt->pack_pool);
  {
    const adif::Guard lock(mgmt->node_lock);
    if (sk_num(mgmt->nodes) != 0) findings.add("%d nodes are registered", sk_num(mgmt->nodes));
  }
  {
    const adif::Guard lock(mgmt->sess_lock);
    if (sk_num(mgmt->sessions) != 0)
      findings.add("%d sessions are registered", sk_num(mgmt->sessions));
  }
  const auto as_before = [&] {
    const Idle now = idle_of(mgmt);
    return now.connections == before.connections && now.timers == before.timers;
  };
  if (!soon(as_before)) {
    const Idle now = idle_of(mgmt);
    findings.add("engine: %u of %u connections and %u of %u timers are free", now.connections,
                 before.connections, now.timers, before.timers);
  }
  if (const int32_t now = c2ms_mem_avail(mgmt); now != before.arena)
    findings.add("arena: %d bytes of %d are free", now, before.arena);
}

void check_gone(Findings &findings, const Holdings &before) {
  Holdings now;
  const auto gone = [&] {
    now = holdings_now();
    return now.descriptors == before.descriptors && now.threads == before.threads;
  };
  if (!soon(gone)) {
    findings.add("left behind: %d descriptors, %d threads", now.descriptors - before.descriptors,
                 now.threads - before.threads);
  }
}

}  // namespace support
