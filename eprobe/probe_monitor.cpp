// Statistics monitor: a timer that appends a report of the engine's use to a file.
#include <ctime>

#include "adif/check.h"
#include "eprobe/probe.h"
#include "eprobe/rac_core.h"

namespace {

constexpr const char *SOURCE = "eprobe/probe";
constexpr uint32_t MONITOR_CMD = 9527;

unsigned long ul(uint32_t value) {
  return value;
}

rac_timer *start_period(rac_core *core) REQUIRES(core->monitor_lock) {
  return StartTimer2(core, core->monitor_period_ms, MONITOR_CMD, reinterpret_cast<uintptr_t>(core),
                     profile_pump, core);
}

void write_report(std::FILE *file, const rac_core *core, const std::tm &now) {
  const uint32_t free_connections = core->free_connection_n.load(std::memory_order_relaxed);
  const uint32_t free_timers = core->free_timer_n.load(std::memory_order_relaxed);
  std::fprintf(
      file, "======================%.4d-%.2d-%.2d %.2d:%.2d:%.2d======================\n\n",
      now.tm_year + 1900, now.tm_mon + 1, now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec);
  std::fprintf(file, "Probe event model\t\t\t: %s\n", core->model_name);
  std::fprintf(file, "Probe worker threads\t\t\t: %lu\n", ul(core->nbases));
  std::fprintf(file, "Probe thread max connections\t\t: %lu\n",
               ul(core->connection_n / core->nbases));
  std::fprintf(file, "Probe total connections\t\t\t: %lu\n", ul(core->connection_n));
  std::fprintf(file, "Probe used connections\t\t\t: %lu\n",
               ul(core->connection_n - free_connections));
  std::fprintf(file, "Probe free  connections\t\t\t: %ld\n", static_cast<long>(free_connections));
  std::fprintf(file, "Probe total timers\t\t\t: %lu\n", ul(core->timer_n));
  std::fprintf(file, "Probe used timers\t\t\t: %lu\n", ul(core->timer_n - free_timers));
  std::fprintf(file, "Probe free  timers\t\t\t: %ld\n\n", static_cast<long>(free_timers));
  std::fprintf(file, "Thread\tconnections\ttimers\n");
  for (uint32_t i = 0; i < core->nbases; ++i) {
    const rac_base &base = core->bases[i];
    std::fprintf(file, "%d\t%d\t\t%d\n", static_cast<int>(base.index),
                 static_cast<int>(base.nconnections.load(std::memory_order_relaxed)),
                 static_cast<int>(base.ntimers.load(std::memory_order_relaxed)));
  }
  std::fflush(file);
}

}  // namespace

int probe_set_profile_monitor(rac_core *core, const char *filename, uint32_t ms) {
  adif::check(core != nullptr, "vpcore != ((void *)0)", SOURCE);
  adif::check(filename != nullptr, "filename != ((void *)0)", SOURCE);
  adif::check(ms > 1000, "ms > 1000", SOURCE);
  rac_guard guard(core->monitor_lock);
  if (core->monitor_on != 0) return 0;
  core->monitor_file = std::fopen(filename, "a+e");
  if (core->monitor_file == nullptr) return -1;
  core->monitor_period_ms = ms;
  core->monitor_file_name = filename;
  core->monitor_timer = start_period(core);
  if (core->monitor_timer == nullptr) {
    std::fclose(core->monitor_file);
    core->monitor_file = nullptr;
    return -1;
  }
  core->monitor_on = 1;
  return 0;
}

int profile_pump(void *vcore, void *vobj, int, int) {
  adif::check(vobj != nullptr, "vobj != ((void *)0)", SOURCE);
  auto *core = static_cast<rac_core *>(vcore);
  rac_guard guard(core->monitor_lock);
  if (core->monitor_on == 0 || core->monitor_file == nullptr) return -1;
  const std::time_t seconds = std::time(nullptr);
  std::tm now{};
  if (seconds == static_cast<std::time_t>(-1) || localtime_r(&seconds, &now) == nullptr) return -1;
  // Does nothing when this is its own run; a caller from outside replaces the waiting period.
  StopTimer(core->monitor_timer);
  core->monitor_timer = nullptr;
  write_report(core->monitor_file, core, now);
  core->monitor_timer = start_period(core);
  // Cannot fail in its own run: a timer always finds its slot again.
  adif::check(core->monitor_timer != nullptr, "monitor_timer != ((void *)0)", SOURCE);
  return 0;
}
