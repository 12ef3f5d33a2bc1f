// The select event model: one instance per base, for the base's own thread (or whoever starts and
// ends it). Descriptors stay below 1024: they are refused where a device is made.
#pragma once

#include "eprobe/rac_core.h"

/// An empty model with room for RAC_SELECT_SLOTS events; entries of an older array are taken over.
/// 0, or -1 without memory.
int rac_select_init(rac_base *base);
void rac_select_done(rac_base *base);

/// Registers the event's descriptor for its side. 0, also if it is registered; -1 for the wrong
/// side.
int rac_select_add_event(rac_base *base, rac_event *event, int which, uint32_t flags);
/// Unregisters it. Always 0.
int rac_select_del_event(rac_base *base, rac_event *event, int which, uint32_t flags);

/// Waits up to `timer` ms (-1: without limit) and posts what is ready. 0, or -1 if nothing could be
/// waited for. With EBADF the registrations are repaired first.
int rac_select_process_events(rac_base *base, int32_t timer, uint32_t flags);

/// Drops the registrations of descriptors that are closed or belong to another connection by now,
/// and tells each of their owners IOE_INVALID_DEV, once.
void rac_select_repair_fd_sets(rac_base *base);
