// Measures what the library costs when there is nothing to do, and how much memory it takes.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "bench/play.h"
#include "bench/sections.h"

namespace bench {

namespace {

constexpr int ring_bytes = 8 << 20;

// How often the process's threads have gone to sleep so far.
double sleeps() {
  double sum = 0;
  const std::unique_ptr<DIR, int (*)(DIR *)> tasks(opendir("/proc/self/task"), &closedir);
  while (const dirent *entry = tasks == nullptr ? nullptr : readdir(tasks.get())) {
    const std::string path = std::string("/proc/self/task/") + entry->d_name + "/status";
    std::FILE *file = std::fopen(path.c_str(), "r");
    if (file == nullptr) continue;
    char line[256];
    long count = 0;
    while (std::fgets(line, sizeof line, file) != nullptr) {
      if (std::sscanf(line, "voluntary_ctxt_switches: %ld", &count) == 1) break;
    }
    sum += static_cast<double>(count);
    std::fclose(file);
  }
  return sum;
}

void fill(const play &p) {
  c2ms_sess_buffering(p.session(), ring_bytes * 3 / 4);
  for (int32_t ratio = 0; ratio < 100;) {
    c2ms_sess_bufratio(p.session(), &ratio);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

double stripped_bytes(const std::string &library) {
  const std::string copy = library + ".bench-stripped";
  const std::string command = "strip -o '" + copy + "' '" + library + "'";
  struct stat info {};
  if (std::system(command.c_str()) != 0 || stat(copy.c_str(), &info) != 0) return 0;
  std::remove(copy.c_str());
  return static_cast<double>(info.st_size);
}

}  // namespace

void bench_rest(const effort &e, results &out) {
  const served_file file(0, 100'000'000, plain_server());
  const double seconds = e.quick() ? 1 : 30;
  figures f = in_child(any_cpu, [&] {
    play p(file.url(), ring_bytes);
    p.cache(64 << 10, 4);
    p.select_media();
    fill(p);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double before = sleeps(), cpu = cpu_seconds();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    return figures{{"wakes", (sleeps() - before) / seconds},
                   {"cpu", (cpu_seconds() - cpu) / seconds}};
  });
  char line[128];
  std::snprintf(line, sizeof line,
                "paused with a full buffer, %g s: %.1f wake-ups/s, %.4f %% of a processor", seconds,
                f["wakes"], f["cpu"] * 100);
  out.note(line);
}

void bench_memory(const effort &e, results &out) {
  const served_file file(0, 100'000'000, plain_server());
  constexpr int more = 8;
  figures f = in_child(any_cpu, [&] {
    const double at_first = resident_bytes();
    play p(file.url(), ring_bytes);
    p.cache(64 << 10, 4);
    p.select_media();
    std::vector<char> piece(64 << 10);
    for (int i = 0; i < 400; ++i)
      c2ms_sess_read(p.session(), piece.data(), static_cast<int>(piece.size()), 0);
    const double one = resident_bytes();
    std::vector<c2ms_sess *> sessions;
    for (int i = 0; i < more; ++i)
      sessions.push_back(c2ms_sess_open(p.library(), file.url().c_str(), nullptr));
    const double with_more = resident_bytes();
    for (c2ms_sess *sess : sessions) c2ms_sess_close(sess);
    return figures{{"first", one - at_first - ring_bytes}, {"more", (with_more - one) / more}};
  });
  char line[160];
  std::snprintf(line, sizeof line,
                "resident above the arena: %.0f KiB with one playing session, %.0f KiB for each "
                "further one",
                f["first"] / 1024, f["more"] / 1024);
  out.note(line);
  const double bytes = stripped_bytes(e.build + "/lib/libc2ms.so");
  std::snprintf(line, sizeof line, "libc2ms.so, stripped: %.0f KiB", bytes / 1024);
  out.note(line);
}

}  // namespace bench
