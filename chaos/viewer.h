// A player with a session of its own, driven by dice: what it gets is compared with a model of the
// position and with the content, which identifies itself.
#pragma once

#include <functional>

#include "c2ms.h"
#include "c2ms/core/records.h"
#include "world.h"

namespace chaos {

/// What the viewers of a run have done, over all runs of a process.
struct Tally {
  std::atomic<uint64_t> calls{0}, bytes{0}, opens{0}, failed_opens{0}, indexes{0};
};

/// Opens the film; the weather's faults may end that, with a code that is documented.
c2ms_sess *open_session(World &world, c2ms_mgmt *mgmt, Tally &tally, current_call &current);

class Viewer {
 public:
  Viewer(World &world, c2ms_mgmt *mgmt, Tally &tally, uint64_t seed, uint64_t role);
  ~Viewer();
  Viewer(const Viewer &) = delete;
  Viewer &operator=(const Viewer &) = delete;

  void storm();          ///< calls at random until the weather is calm
  void finish();         ///< the file completes from a random position to its end
  current_call current;  ///< the call under way

 private:
  bool open();
  void close();
  bool prepare();
  void act();
  void read_some(bool may_wait);
  void take(const char *name, int n, const uint8_t *bytes, int32_t wanted);
  bool explains_short(uint64_t end) const;
  void seek();
  void select_file();
  void select_range(bool index_file, uint64_t base, uint64_t size);
  void open_index();
  void poll_index();
  void look();
  bool allowed_refusal(int result) const;

  World &world_;
  c2ms_mgmt *const mgmt_;
  Tally &tally_;
  Dice dice_;
  c2ms_sess *sess_ = nullptr;
  // The model.
  bool cached_ = false;
  bool of_index_ = false;  // the index file is selected
  bool index_open_ = false;
  int32_t pack_ = 0;
  uint64_t base_ = 0, length_ = 0, pos_ = 0;
};

}  // namespace chaos
