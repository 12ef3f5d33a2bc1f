// The memory of a media's index: what an open of it holds, and the index itself once it is there.
#pragma once

#include "c2ms/core/records.h"

namespace c2ms {

/// The index in memory and its window are gone; readers get everything from the cache again.
/// `cache` is NULL when nobody reads any more. Needs the read gate.
void clear_index(c2ms_sess *sess, c2ms_cache *cache);

/// Gives back the packed file of an open; all that an open holds. Need the read gate.
void drop_packed(c2ms_sess *sess);
void drop_opening(c2ms_sess *sess);

}  // namespace c2ms

/// Gives back what the index calls hold of a session that nobody is inside any more.
void c2ms_sess_idx_release(c2ms_sess *sess);
