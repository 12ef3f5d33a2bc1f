// Events: the read and the write event of each connection and the event of each timer, the queues
// of ready events, and the table of calls through which all registration goes. Everything here that
// takes a base is for the base's own thread, except the timer calls, which lock the tree and may
// come from any thread.
#pragma once

#include "eprobe/rac_core.h"

/// The event model in use. add, del, enable and disable take the side of the event (rac_side) and
/// flags (1: the descriptor is being closed). An empty slot is not needed by the model.
struct rac_event_action_table {
  int (*add)(rac_base *base, rac_event *event, int which, uint32_t flags);
  int (*del)(rac_base *base, rac_event *event, int which, uint32_t flags);
  int (*enable)(rac_base *base, rac_event *event, int which, uint32_t flags);
  int (*disable)(rac_base *base, rac_event *event, int which, uint32_t flags);
  int (*add_conn)(rac_base *base, rac_connection *c);
  int (*del_conn)(rac_base *base, rac_connection *c, uint32_t flags);
  int (*process_changes)(rac_base *base);
  int (*process_events)(rac_base *base, int32_t timer, uint32_t flags);
  int (*init)(rac_base *base);
  void (*done)(rac_base *base);
};
extern const rac_event_action_table rac_event_actions;

inline constexpr uint32_t RAC_CLOSING = 1;      ///< flag of add to disable
inline constexpr uint32_t RAC_UPDATE_TIME = 1;  ///< flags of process_events
inline constexpr uint32_t RAC_POST_EVENTS = 2;

/// Makes the event fresh for a new owner or a new use of its slot.
void rac_event_reset(rac_event *event, void *owner, bool write);

/// Puts a ready event at the head of a queue; takes it out of whatever queue it is in, if any.
void rac_post_event(rac_event *event, rac_event **queue);
void rac_unpost_event(rac_event *event);

/// Empties the queue, calling each event's handler; an event that is no longer registered is
/// skipped. Handlers may post and unpost while this runs.
void rac_event_process_posted(rac_base *base, rac_event **queue);

/// Empty tree and its lock / the tree's end. 0, or -1 without memory.
int rac_event_timer_init(rac_base *base);
void rac_event_timer_done(rac_base *base);

/// Milliseconds until the first timer is due, 0 when it is overdue, -1 without timers.
int32_t rac_event_find_timer(rac_base *base);

/// Takes out what is due and calls each handler without the lock, in order of expiry; at most as
/// many as were in the tree at the beginning, so that handlers that start timers cannot keep a base
/// here.
void rac_event_expire_timers(rac_base *base);

/// Sets the event's timer `msec` (clamped to 2^31 - 1) from now. One that is set and would move by
/// less than 300 ms stays where it is. True if it is now the first to expire: the base's wait is
/// then too long.
bool rac_event_add_timer(rac_base *base, rac_event *event, uint32_t msec);
/// Takes the event's timer out of the tree if it is there.
void rac_event_del_timer(rac_base *base, rac_event *event);
/// The same for a caller that holds the tree's lock.
void rac_event_del_timer_locked(rac_base *base, rac_event *event) REQUIRES(base->timer_lock);

/// Timers and select state of a base: 0, or -1.
int rac_event_process_init(rac_base *base);
void rac_event_process_done(rac_base *base);
