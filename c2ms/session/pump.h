// The event pump: the one handler that the session core gives the engine for every device and
// timer, and the periodic check of a session.
#pragma once

#include "c2ms/core/records.h"

/// Handles an engine event (probe_event) of a device or timer of kind `kind`; `mgmt` is the
/// management context. Runs on the engine's threads. Finds the node or session by the id that the
/// device or timer carries, enters its strand, and ignores what does not match any more. 0 handled;
/// negative not handled or stale, as the engine ignores.
int c2ms_pump(void *mgmt, void *dev, int event, int kind);

namespace c2ms {
/// Starts every timer that a session and its nodes lack because none was free when it was due. Each
/// timer of the session that expires does this, so that none of them stays lost while another one
/// is left; so do the waiting open and a reopen. Inside the strand.
void rearm_timers(c2ms_sess *sess);
}  // namespace c2ms

/// The periodic supervision of a session: reports on it, grows it towards four usable nodes, asks
/// the entry server again when they are lost, asks again for missing packs, starts the next check.
/// Inside the strand. 0; -1 NULL; -2 no context.
int c2ms_sess_check(c2ms_sess *sess);
