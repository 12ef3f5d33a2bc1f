// c2ms-get: fetches a media file to a file or a pipe, through the player's interface alone. This
// file holds main and the course of a run; c2ms-get-*.cpp hold the program's parts.
#include <c2ms.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "crypto/gcrypt_ready.h"
#include "tools/c2ms-get-options.h"
#include "tools/c2ms-get-progress.h"
#include "tools/c2ms-get-report.h"
#include "tools/c2ms-get-sink.h"
#include "tools/c2ms-get-trace.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int32_t kBudgetMs = 100;    // the longest delay of a signal or a redraw
constexpr size_t kChunk = 256 << 10;  // bytes asked for at once
constexpr double kIndexLimit_s = 30;
constexpr auto kIndexPause = std::chrono::milliseconds(2);
constexpr int32_t kEndOfFile = -200;  // of the data calls
constexpr size_t kFidText = 33, kNameText = 37;

volatile std::sig_atomic_t g_signal = 0;

struct CleanLibrary {
  void operator()(c2ms_mgmt *library) const { c2ms_mgmt_clean(library); }
};
struct CloseSession {
  void operator()(c2ms_sess *session) const { c2ms_sess_close(session); }
};
using Library = std::unique_ptr<c2ms_mgmt, CleanLibrary>;
using Session = std::unique_ptr<c2ms_sess, CloseSession>;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The first signal asks for a clean stop, the second one ends the program at once. SA_RESTART is
/// not set, so that a signal interrupts a write to a full pipe.
void catch_signals() {
  struct sigaction action {};
  action.sa_handler = [](int number) { g_signal = number; };
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int32_t stop_opening() {
  return g_signal != 0 ? -1 : 0;
}

void print_diagnostic(void *, const char *line) {
  std::fputs(line, stderr);
}

Session open_session(c2ms_mgmt *library, const get::Options &options, get::Report *report) {
  const auto start = Clock::now();
  int32_t code = 0;
  Session session(c2ms_sess_open1(library, options.url.c_str(), &code, stop_opening));
  report->open_s = seconds_since(start);
  if (!session) {
    if (g_signal == 0) get::fail(report, code);
    return session;
  }
  char fid[kFidText] = "", name[kNameText] = "";
  c2ms_sess_attr(session.get(), fid, name, &report->media_size, &report->type);
  report->fid = fid;
  report->name = name;
  return session;
}

/// Determines the range to fetch; false when it lies outside the media.
bool choose_range(const get::Options &options, get::Report *report) {
  const uint64_t size = report->media_size;
  const uint64_t rest = options.offset <= size ? size - options.offset : 0;
  const bool whole = options.length == UINT64_MAX;
  report->offset = options.offset;
  report->length = whole ? rest : options.length;
  if (options.offset <= size && report->length <= rest) return true;
  get::fail(report, "the media has only " + std::to_string(size) + " bytes");
  return false;
}

/// Counts the bytes of the range that lie in packs wholly inside the open index: not fetched.
uint64_t saved_by_index(c2ms_sess *session, int32_t pack_size, const get::Report &report) {
  const auto pack = static_cast<uint64_t>(pack_size);
  uint64_t begin = 0;
  c2ms_sess_idx_offset(session, &begin);
  const uint64_t end = std::min(begin + report.index_size, report.offset + report.length);
  begin = std::max(begin, report.offset);
  if (begin >= end) return 0;
  const uint64_t first = (begin - report.offset + pack - 1) / pack * pack;
  uint64_t last = end - report.offset;
  if (last != report.length) last = last / pack * pack;
  return last > first ? last - first : 0;
}

/// Opens the index; polls, so that a signal is noticed. If the open fails, the fetch goes on.
void open_index(c2ms_sess *session, int32_t pack_size, get::Report *report) {
  const auto start = Clock::now();
  report->indexed = c2ms_sess_idxfile(session, nullptr, &report->index_fetched) == 1;
  if (!report->indexed) return;
  do {
    report->index_code = c2ms_sess_idx_open_asyn(session, &report->index_size);
    if (report->index_code != C2MS_CACHING) break;
    std::this_thread::sleep_for(kIndexPause);
  } while (g_signal == 0 && seconds_since(start) < kIndexLimit_s);
  report->index_s = seconds_since(start);
  if (report->index_code == C2MS_CACHING) c2ms_sess_idx_close(session);
  if (report->index_code >= 0) {
    report->index_code = 0;
    report->index_saved = saved_by_index(session, pack_size, *report);
  }
}

/// Gives the session its cache and selects the range. The last pack of a range whose size the pack
/// size divides is never delivered, so the pack size avoids that.
bool prepare(c2ms_sess *session, const get::Options &options, get::Report *report) {
  int32_t pack_size = c2ms_sess_pack_size(session, options.pack_size);
  while (pack_size > 0 && report->length % static_cast<uint32_t>(pack_size) == 0) ++pack_size;
  int32_t result = c2ms_sess_cache_init(session, pack_size);
  if (result == -2) get::fail(report, "the memory (--mem) has no room for a pack (--pack-size)");
  if (result >= 0 && options.index) open_index(session, pack_size, report);
  // Opening the index has already selected the whole media.
  const bool selected = report->indexed && report->length == report->media_size;
  if (result >= 0 && !selected) {
    result = c2ms_sess_range(session, report->offset, report->length);
  }
  if (result < 0) get::fail(report, result);
  c2ms_sess_buffering(session, options.mem_size);  // "buffer 100%" means a full cache
  return result >= 0;
}

/// Copies bytes until all have arrived, something fails, the time is up or a signal comes.
void fetch(c2ms_sess *session, const get::Options &options, get::Sink *sink,
           get::Progress *progress, get::Trace *trace, get::Report *report) {
  std::vector<uint8_t> buffer(kChunk);
  auto last_byte = Clock::now();
  while (report->received < report->length && g_signal == 0) {
    const auto want =
        static_cast<int32_t>(std::min<uint64_t>(buffer.size(), report->length - report->received));
    const int32_t got = c2ms_sess_recv(session, buffer.data(), want, kBudgetMs);
    if (got == kEndOfFile) return get::fail(report, "the media ended too early");
    if (got < 0) return get::fail(report, got);
    if (got > 0) {
      const auto size = static_cast<size_t>(got);
      report->received += sink->write(buffer.data(), size, &g_signal);
      if (!sink->error().empty()) return get::fail(report, sink->error());
      last_byte = Clock::now();  // the time spent writing does not count against the servers
    } else if (options.timeout_s > 0 && seconds_since(last_byte) > options.timeout_s) {
      return get::fail(report, "no byte for " + std::to_string(options.timeout_s) + " seconds");
    }
    progress->update(session, report->received);
    trace->collect(session);
  }
}

void finish(const get::Options &options, get::Sink *sink, get::Report *report) {
  get::fail(report, sink->close());
  if (options.verify.empty()) return;
  report->sha256 = sink->sha256();
  report->verified = report->received == report->length && report->sha256 == options.verify;
  if (!report->verified && report->signal == 0) get::fail(report, "SHA-256 is " + report->sha256);
}

void run(c2ms_mgmt *library, const get::Options &options, get::Report *report) {
  const Session session = open_session(library, options, report);
  if (!session) {
    report->signal = g_signal;
    return;
  }
  if (!choose_range(options, report)) return;
  get::Sink sink;
  const std::string problem =
      sink.open(options.output, options.named_by_url, !options.verify.empty());
  if (!problem.empty()) return get::fail(report, problem);
  get::Trace trace(options.trace, options.timeline);
  trace.begin(session.get());
  const auto start = Clock::now();
  if (report->length == 0 || prepare(session.get(), options, report)) {
    get::Progress progress(options.stats && !options.verbose, report->length);
    fetch(session.get(), options, &sink, &progress, &trace, report);
  }
  report->fetch_s = seconds_since(start);
  // A signal after the last byte does not matter.
  if (report->received < report->length) report->signal = g_signal;
  c2ms_sess_stats(session.get(), &report->stats, sizeof report->stats);
  trace.collect(session.get());
  get::fail(report, trace.write(report->media_size));
  finish(options, &sink, report);
  if (options.dump) c2ms_sess_print(session.get(), stderr);
}

}  // namespace

int main(int argc, char **argv) {
  get::Options options;
  switch (get::parse_options(argc, argv, &options)) {
    case get::Parsed::run:
      break;
    case get::Parsed::done:
      return 0;
    case get::Parsed::wrong:
      return 2;
  }
  get::Report report;
  report.url = options.url;
  report.output = options.output;
  c2ms_set_diag(options.verbose ? print_diagnostic : nullptr, nullptr);
  catch_signals();
  if (crypto::gcrypt_ready()) {
    const Library library(c2ms_mgmt_init(options.conf.c_str(), 0, 0, nullptr, options.mem_size));
    if (library) {
      run(library.get(), options, &report);
    } else {
      get::fail(&report, "the library cannot start: no memory or no threads");
    }
  } else {
    get::fail(&report, "libgcrypt is too old");
  }
  get::print_error(report);
  if (options.stats) get::print_summary(report);
  if (options.json) get::print_json(report, options.output == "-" ? stderr : stdout);
  return get::exit_status(report);
}
