// Asking the entry server for a list of servers: when a session opens, and again when they are
// lost.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

namespace c2ms {

/// The address (network order) of the session's entry server; 0 when there is none, or when the
/// session's open or the session itself has ended meanwhile. May wait for a name look-up: never
/// inside a strand.
uint32_t resolve_entry(const c2ms_sess *sess);

/// Starts an entry exchange with the server at `address`, unless one is under way. Inside the
/// strand. 0, or -100 when it can't be started.
int start_entry_exchange(c2ms_sess *sess, uint32_t address);

/// Begins with the servers of the film before (core/known.h), while the list is on its way. Inside
/// the strand.
void open_known(c2ms_sess *sess);

/// As start_entry_exchange, from an engine thread, which must not look a name up: a dotted host is
/// asked at once, another one when the resolver's thread has its address. Inside the strand.
void reopen_later(c2ms_sess *sess);

/// A media node has failed (c2ms_sess::list_due): while the media has not been described and every
/// server that the last list named has failed, asks the entry server for another list, 250 ms after
/// the last one, then 500 ms, doubling. Inside the strand.
void ask_entry_if_due(c2ms_sess *sess);

}  // namespace c2ms
