// One play through the library's player API, as the benches measure it.
#pragma once

#include "bench/harness.h"
#include "c2ms.h"
#include "c2ms/core/records.h"

namespace bench {

/// The library with one open session, without diagnostics. Ends the process with a message when the
/// open fails.
class play {
 public:
  play(const std::string &url, int arena_bytes);
  ~play();
  play(const play &) = delete;
  play &operator=(const play &) = delete;

  /// Makes the cache, after `nodes` connections have become usable. Requests no byte of the media
  /// yet.
  void cache(int pack_bytes, int nodes);
  void select_media();

  c2ms_mgmt *library() const { return library_; }
  c2ms_sess *session() const { return session_; }
  uint64_t size() const { return size_; }
  double open_seconds() const { return open_seconds_; }

 private:
  c2ms_mgmt *library_ = nullptr;
  c2ms_sess *session_ = nullptr;
  uint64_t size_ = 0;
  double open_seconds_ = 0;
};

struct play_options {
  const served_file *file;
  int nodes;
  int pack_bytes;
  int ring_bytes;
  int read_bytes;
};

/// Reads the whole file in pieces of read_bytes. Figures: seconds, cpu, bytes.
figures run_play(const play_options &options);

}  // namespace bench
