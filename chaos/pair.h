// Two threads on one session: one reads, the other seeks, selects ranges, asks and closes. Each
// delivery must be explained by some serial order of the calls: it begins where the last one ended
// or where a move that can have come in between has gone, and a move that was over before the read
// began is never forgotten. A read at a position delivers that position's bytes, whatever comes in
// between.
#pragma once

#include "viewer.h"

namespace chaos {

class Pair {
 public:
  Pair(World &world, c2ms_mgmt *mgmt, Tally &tally, uint64_t seed);

  void read_on();  ///< the reader's thread, until over()
  void disturb();  ///< the other's, until the weather is calm; closes the session

  current_call reader_call, other_call;

 private:
  struct move {
    uint64_t to;    // of the file
    bool over;      // its call has returned
    uint64_t base;  // where the selected range began then
  };

  /// The session for one call of the reader, which end_use() follows; NULL: none is open.
  c2ms_sess *use();
  void end_use() { --users_; }

  bool open();
  void close();
  void act(c2ms_sess *sess);
  void seek(c2ms_sess *sess);
  void move_to(uint64_t to, const std::function<int()> &call);
  void select_file(c2ms_sess *sess);
  size_t moves_over() const;
  void read_once(c2ms_sess *sess);
  int read_at_once(c2ms_sess *sess, uint8_t *buffer, int32_t len, size_t over_at_begin);
  void ended_at(uint64_t pos, bool located, size_t over_at_begin);
  void locate(const uint8_t *bytes, int n, size_t over_at_begin);

  World &world_;
  c2ms_mgmt *const mgmt_;
  Tally &tally_;
  Dice reader_dice_, other_dice_;
  std::atomic<c2ms_sess *> sess_{nullptr};
  std::atomic<int> users_{0};
  std::atomic<bool> over_{false};
  // The other's, and what the reader knows of it.
  uint64_t base_ = 0, length_ = 0;
  int32_t pack_ = 0;
  std::mutex moves_lock_;
  std::vector<move> moves_;
  // The reader's.
  bool located_ = false;  // it is known where the last delivery was from
  uint64_t expected_ = 0;
  size_t oldest_possible_ = 0;     // moves before it were over when the last located read began
  size_t known_then_ = 0;          // moves that had begun when it ended
  std::vector<uint64_t> perhaps_;  // where reads at a position that delivered nothing may have gone
};

}  // namespace chaos
