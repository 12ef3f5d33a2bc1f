// Bases: their set-up, the loop of a worker thread, and the way to wake one.
//
// One turn of the loop:
//   1. requests that this thread queued to itself, repairs that are due, paused listeners
//   2. wait in select until something is ready, the first timer is due or another thread calls
//   3. ready wake-up sockets, connecting devices and listeners
//   4. timers that are due
//   5. other ready devices
//   6. the hook
//   7. whoever waits for the end of this turn is told
#pragma once

#include "eprobe/rac_core.h"

/// Makes the base's wake-up socket pair, queue, tree and select state: 0, or -1; rac_base_done then
/// frees what was made. The base is zeroed and its `index` set by the caller.
int rac_base_init(rac_core *core, rac_base *base);
void rac_base_done(rac_base *base);

/// Puts a socket in non-blocking mode: 0, or -1.
int rac_set_socket_nonblocking(int fd);

/// The loop, run as a worker's body until the core's `stop` is set: 0; -1 without base or core.
int rac_base_cycle(rac_base *base);
void rac_process_events_and_timers(rac_base *base);

/// Handler of the wake-up socket's read event: drains it and carries out the queued requests.
void rac_process_base_event(rac_event *event);
