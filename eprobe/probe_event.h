// Handlers that the probe installs on engine events, and what the worker's loop calls of the probe.
// All run on the worker of the device or timer, with no engine lock held.
#pragma once

#include "eprobe/rac_core.h"

void process_connect_event(rac_event *event);  ///< write event of a connecting device
void process_read_event(rac_event *event);
void process_write_event(rac_event *event);
void process_accept_event(rac_event *event);  ///< read event of a listener, and its pause's timer
void process_timer_event(rac_event *event);

/// Carries out a SetNotify mask.
void probe_apply_notify(rac_connection *c, uint32_t mask);

/// Whether the listener has stopped accepting for want of a slot, request or descriptor.
bool probe_is_pausing(const rac_connection *listener);
/// Ends the pause and leaves the listener unwatched, as SetNotify does with one that accepts.
void probe_end_pause(rac_connection *listener);

/// Lets the base's listeners that wait for a slot accept again if there is one.
void probe_resume_listeners(rac_base *base);

/// Runs the hook: 0, or -1 without a complete one, which costs one load. Any thread.
int probe_run_hook(rac_core *core);
