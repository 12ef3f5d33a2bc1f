// See index.h.
#include "c2ms/ring/index.h"

#include <cstdlib>

#include "c2ms/ring/range.h"

namespace c2ms {

void clear_index(c2ms_sess *sess, c2ms_cache *cache) {
  {
    const adif::Guard lock(sess->cache_record.lock);
    const bool had_window = sess->idx_mem != 0;
    sess->idx_mem = 0;
    sess->idx_offset = 0;
    sess->idx_buf_len = 0;
    sess->idx_box_len = 0;
    sess->moov_at_end = 0;
    if (had_window && cache != nullptr) c2ms_cache_window_changed(&sess->cache_record);
  }
  std::free(sess->idx_buf);
  sess->idx_buf = nullptr;
}

void drop_packed(c2ms_sess *sess) {
  std::free(sess->idx_zbuf);
  sess->idx_zbuf = nullptr;
  sess->idx_zrecv = 0;
}

void drop_opening(c2ms_sess *sess) {
  drop_packed(sess);
  std::free(sess->idx_opening.buf);
  sess->idx_opening = {};
  sess->idx_started = 0;
}

}  // namespace c2ms

using namespace c2ms;

void c2ms_sess_idx_release(c2ms_sess *sess) {
  drop_opening(sess);
  clear_index(sess, nullptr);
}
