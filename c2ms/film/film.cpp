// The usual start of a film: open, cache, range and index in one call, which may be waited for,
// cancelled and closed while it is under way. Described in c2ms.h.
#include <algorithm>
#include <cstring>

#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"
#include "c2ms/player/idx.h"
#include "c2ms/player/setup.h"
#include "c2ms/session/opening.h"

namespace {

using namespace c2ms;

constexpr uint32_t known_flags = C2MS_NO_INDEX | C2MS_OPEN_ONLY;
constexpr uint32_t most_weight = 1000;
constexpr int32_t question_ms = 20;  // between two calls of a host's interrupt callback

// The player's structure, which may be of another version: a shorter one ends in zeros.
bool take_film(const c2ms_film *given, c2ms_film *out) {
  *out = {};
  if (given == nullptr) return true;
  if (given->struct_size < sizeof given->struct_size) return false;
  std::memcpy(out, given, std::min<size_t>(given->struct_size, sizeof *out));
  return (out->flags & ~known_flags) == 0 && out->weight <= most_weight;
}

// On the thread that opens: the media has just been described.
int32_t prepare(c2ms_sess *sess) {
  const open_wishes &wishes = sess->wishes;
  const uint64_t begin = wishes.range_begin, size = sess->media_size;
  if (begin > size || wishes.range_size > size - begin) return C2MS_INVALID_PARAMETER;
  const uint64_t range = wishes.range_size != 0 ? wishes.range_size : size - begin;
  const int32_t pack_size = suitable_pack_size(sess, range, wishes.pack_size);
  const int cached = set_up_cache(sess, wishes.cache_bytes, pack_size);
  if (cached == cache_too_small || cached == C2MS_NO_CACHE_MEMORY) return C2MS_NO_CACHE_MEMORY;
  if (cached != 0) return C2MS_NO_MEMORY;
  const int selected = select_file(sess, sess->fid, begin, range);
  if (selected != 0) return C2MS_INVALID_PARAMETER;
  // Whatever comes of it the film plays.
  if (wishes.index) open_index(sess, nullptr);
  return 0;
}

c2ms_sess *begin(c2ms_mgmt *mgmt, const char *url, const c2ms_film *how, int32_t *err) {
  c2ms_film film;
  if (!take_film(how, &film)) {
    *err = C2MS_INVALID_PARAMETER;
    return nullptr;
  }
  c2ms_sess *const sess = begin_open(mgmt, url, err);
  if (sess == nullptr) return nullptr;
  if (film.weight != 0) sess->weight = film.weight;
  if ((film.flags & C2MS_OPEN_ONLY) == 0) {
    sess->wishes = {prepare,         film.cache_bytes, film.range_begin,
                    film.range_size, film.pack_size,   (film.flags & C2MS_NO_INDEX) == 0};
  }
  return sess;
}

c2ms_sess *begin_elsewhere(c2ms_mgmt *mgmt, const char *url, const c2ms_film *how, int32_t *err) {
  c2ms_sess *const sess = begin(mgmt, url, how, err);
  if (sess == nullptr || run_open_elsewhere(sess)) return sess;
  drop_failed(sess);
  *err = C2MS_NO_MEMORY;
  return nullptr;
}

// The session if its open has gone well.
c2ms_sess *keep_if_open(c2ms_sess *sess, int32_t result, int32_t *err) {
  *err = result;
  if (result == 0) return sess;
  c2ms_sess_end(sess);
  return nullptr;
}

}  // namespace

c2ms_sess *c2ms_sess_begin(c2ms_mgmt *mgmt, const char *url, const c2ms_film *how, int32_t *err) {
  int32_t ignored;
  const ContextCall call(mgmt);
  return begin_elsewhere(mgmt, url, how, err != nullptr ? err : &ignored);
}

c2ms_sess *c2ms_sess_start(c2ms_mgmt *mgmt, const char *url, const c2ms_film *how, int32_t *err) {
  int32_t ignored;
  int32_t &error = err != nullptr ? *err : ignored;
  const ContextCall call(mgmt);
  c2ms_sess *const sess = begin(mgmt, url, how, &error);
  return sess == nullptr ? nullptr : keep_if_open(sess, run_open(sess, nullptr), &error);
}

c2ms_sess *c2ms_sess_open2(c2ms_mgmt *mgmt, const char *url, int32_t *err, int32_t (*cb)(void *arg),
                           void *arg) {
  int32_t ignored;
  int32_t &error = err != nullptr ? *err : ignored;
  const ContextCall call(mgmt);
  c2ms_film open_only{};
  open_only.struct_size = sizeof open_only;
  open_only.flags = C2MS_OPEN_ONLY;
  c2ms_sess *const sess = begin_elsewhere(mgmt, url, &open_only, &error);
  if (sess == nullptr) return nullptr;
  int32_t result;
  while ((result = c2ms_sess_wait(sess, question_ms)) == C2MS_OPENING) {
    if (cb != nullptr && cb(arg) < 0) c2ms_sess_cancel(sess, 1);
  }
  return keep_if_open(sess, result, &error);
}

int c2ms_sess_wait(c2ms_sess *sess, int32_t timeout_ms) {
  if (sess == nullptr) return C2MS_NO_SESSION;
  const CallCount count(sess);
  const auto end = steady::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
  const auto settled = [sess] { return sess->opened != C2MS_OPENING || !is_live(sess); };
  WaitEventUntil(sess->event, end, settled);
  return is_live(sess) ? sess->opened.load() : static_cast<int>(C2MS_CLOSED);
}
