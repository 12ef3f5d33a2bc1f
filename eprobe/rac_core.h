// Records of the event core. One rac_core per probe instance owns three fixed pools (connections,
// timers, operations) and one base per worker thread: a select loop, a timer tree and a queue of
// requests. Only the engine's own files include this; its users see probe.h.
//
// Who may touch what. No path holds two of these locks at once, and none while it calls a handler.
//
// clang-format off
//   what                                            who                               under
//   a base's select state, posted queues, and the   the base's own thread; before     -
//   events of its connections                       and after its run: whoever
//                                                   starts and ends the threads
//   a base's timer tree, its timers' state, words   anybody                           timer_lock
//   and generation
//   a base's queue of operations                    anybody                           the queue's lock
//   the pools' free lists                           anybody                           the pool's mutex
//   a slot's `ident`: does a handle or a queued     anybody                           - (atomic)
//   request still mean this use of the slot?
//
// Words that order other memory (release -> acquire). Every other atomic word is relaxed: a count, or
// written by one thread.
//
//   word                      released by                     acquired by                 what is seen then
//   ident: live               rac_get_connection              rac_find, drain_requests    a record made fresh
//   ident: free, removing     rac_free_connection,            rac_still, rac_is_live      that the use is over
//                             rac_mark_removing
//   connection's base         rac_set_base, rac_dispatch_to   submit, SetNotify           the base; its records are
//                                                                                         older than the threads
//   timer's base              rac_dispatch_timer              rac_stop_timer, read_field  the same
//   timer's generation        release_locked                  rac_find                    that the use is over
//   cores[]                   rac_register_core               core_of                     a whole instance
//   para                      SetDevicePara                   GetDevicePara               what the word points at
//   adopted                   AcceptRemote2                   AcceptRemote2               who was first
//   queue's waiting           rac_operate_queue_push          rac_operate_queue_pop       a hint; the rest by the lock
//   wake_pending              rac_base_notify                 rac_process_base_event      what was queued before a byte
//                                                                                         that was left out
//   wake_owed                 rac_base_notify                 send_owed_wakeups           that a byte is missing
//   barrier_asked             ask_for_turn                    one turn of the loop        what the asker did before
//   repair_due                rac_own_fd                      one turn of the loop        the new owner of a number
//   ntimers                   rac_event_add_timer             rac_event_expire_timers     that there is a timer; the
//                                                                                         rest by timer_lock
//   stop, exiting             StopProbe                       rac_base_cycle              all before the stop
//   started, nowait           StartProbe, StopProbe           the same                    all before the other call
//   paused, free_connection_n in one order for all threads: see rac_pause
// clang-format on
#pragma once

#include <sys/select.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "eprobe/probe.h"
#include "eprobe/rac_rbtree.h"
#include "eprobe/rac_thread.h"

struct rac_base;

inline constexpr uint32_t RAC_OPERATIONS = 512;
/// Entries allocated, whatever the pool's size.
inline constexpr uint32_t RAC_OPERATION_BUFFER = 1024;
/// A read and a write event for each connection.
inline constexpr uint32_t RAC_SELECT_SLOTS = 2 * PROBE_MAX_CONNECTIONS;
/// `index` of an event that select does not know.
inline constexpr uint32_t RAC_UNREGISTERED = 0xd0d0d0d0;
/// `slot` of a request that is in no pool.
inline constexpr uint32_t RAC_NO_SLOT = 0xffffffff;

/// Requests to a base, by rac_dispatch_connection. 0, 5, 6 and 9 are accepted and do nothing.
enum rac_op : uint32_t {
  RAC_OP_ADD_READ = 1,
  RAC_OP_DEL_READ = 2,
  RAC_OP_ADD_WRITE = 3,
  RAC_OP_DEL_WRITE = 4,
  RAC_OP_CLOSE = 7,
  RAC_OP_ACCEPTED = 8,
  RAC_OP_LAST = 9,
  RAC_OP_NOTIFY = 10,  ///< SetNotify from another thread; not for rac_dispatch_connection
};

enum rac_side : int { RAC_READ_SIDE = 0, RAC_WRITE_SIDE = 1 };

struct rac_event {
  void *data;  ///< the rac_connection, or the rac_timer when `of_timer`
  bool write;
  bool accept;               ///< when ready, handled before timers and other events
  bool instance;             ///< toggled on every reuse of the slot
  std::atomic<bool> active;  ///< registered with select; written by the base's thread alone
  bool ready;
  bool timedout;
  bool timer_set;  ///< in the base's timer tree
  bool closed;
  bool of_timer;  ///< fixed at pool creation
  void (*handler)(rac_event *event);
  uint32_t index;  ///< place in event_index, or RAC_UNREGISTERED
  rac_rbtree_node timer;
  rac_event *next;
  rac_event **prev;  ///< the link that points here; NULL while not posted
};

struct rac_operate {
  uint32_t slot;  ///< RAC_NO_SLOT for the request that lives in a connection
  rac_connection *connection;
  uint32_t target;  ///< 1: a connection
  uint32_t op;
  uint32_t generation;  ///< use of the connection's slot that is meant
  uint32_t mask;        ///< of RAC_OP_NOTIFY
  rac_operate *next;
};

/// First-in first-out requests of one base.
struct rac_operate_queue {
  rac_operate *head GUARDED_BY(lock);
  rac_operate *tail GUARDED_BY(lock);
  rac_mutex *lock;
  std::atomic<uint32_t> waiting;  ///< entries; read without the lock to skip an empty queue
};

struct rac_connection {
  rac_connection *data;          ///< free-list link, and of listeners that wait for a slot
  std::atomic<rac_base *> base;  ///< the worker that serves it
  rac_event *read;               ///< fixed at pool creation, as `write`
  rac_event *write;
  std::atomic<int32_t> fd;  ///< -1 when closed
  uint32_t device_kind;
  std::atomic<uint32_t> adopted;  ///< bit 0: AcceptRemote2 has taken it
  std::atomic<uintptr_t> para;    // para to handler_arg2 are copied as a group on accept
  probe_handler handler;
  void *handler_arg;
  void *handler_arg2;  ///< a second copy of the argument
  uint32_t slot;

  rac_core *core;                 ///< fixed at pool creation, as `slot`
  std::atomic<uint32_t> ident;    ///< generation and rac_life, see rac_handle.h
  std::atomic<uint32_t> pending;  ///< requests queued and not yet carried out
  bool accept_paused;             ///< a listener in its base's `paused_listeners`, linked by `data`
  rac_base *counted_by;           ///< base whose `nconnections` has it; NULL: none yet
  uint64_t inode;  ///< of the socket behind `fd`, to tell it from a later file of that number
  bool inode_known;
  const void *group_next;  ///< ring of the handles of one UDP listener; NULL: alone
  rac_operate removal;     ///< the request to close, so that a removal never lacks one
};

inline constexpr uint8_t RAC_TIMER_RUNNING = 1;
inline constexpr uint8_t RAC_TIMER_RELEASED = 2;

/// What the starter of a timer gives; one that is started again has the same.
struct rac_timer_words {
  uint32_t cmd;
  uintptr_t para;
  probe_handler handler;
  void *arg;
  bool operator==(const rac_timer_words &) const = default;
};

struct rac_timer {
  rac_timer *data;  ///< free-list link
  std::atomic<rac_base *> base;
  rac_event *event;  ///< fixed at pool creation
  uint8_t state;     ///< RAC_TIMER_ bits; from here to handler_arg2 under the base's timer_lock
  rac_timer_words words;
  void *handler_arg2;  ///< a second copy of the argument
  uint32_t slot;

  rac_core *core;
  std::atomic<uint32_t> generation;  ///< advanced under the base's timer_lock when the use ends
};

struct rac_base {
  uint32_t index;
  std::atomic<uint32_t> nconnections;  ///< connections handed to this base and not yet closed
  std::atomic<uint32_t> ntimers;       ///< in the tree
  rac_core *core;
  pthread_t thread;
  int32_t notify_recv_fd;
  int32_t notify_send_fd;
  rac_connection *notify_connection;
  uint32_t connections_per_base;
  rac_operate_queue *operate_queue;
  uint32_t select_ready;

  fd_set read_set;
  fd_set write_set;
  fd_set work_read_set;
  fd_set work_write_set;
  int32_t max_fd;  ///< -1: unknown, computed before the next wait
  uint32_t nevents;
  std::unique_ptr<rac_event *[]> event_index;
  rac_event *posted_accept_events;
  rac_event *posted_events;

  rac_mutex *timer_lock;
  rac_rbtree timer_tree GUARDED_BY(timer_lock);
  rac_rbtree_node timer_sentinel;

  std::atomic<bool> wake_pending;    ///< a wake-up byte is on its way
  std::atomic<bool> repair_due;      ///< a descriptor has been seen to belong to somebody else
  rac_connection *paused_listeners;  ///< listeners that wait for a free slot
  rac_timer *expiring;               ///< the timer whose handler this worker is running
  rac_timer *spare_timer;  ///< for the restart of `expiring` when the pool is empty; NULL: in use
  uint32_t turn_served;    ///< the latest `barrier_asked` that a turn has served
  std::atomic<uint32_t> barrier_asked;  ///< counts the waits for the end of a turn
  uint32_t barrier_done;                ///< under the core's state_lock: waits that are over
  bool running;                         ///< likewise: the worker is in its loop
};

/// The registered hook; its four words are always read together.
struct rac_hook {
  probe_hook check;
  void *check_arg;
  probe_hook pump;
  void *pump_arg;
};

struct rac_core {
  uint32_t nbases;
  std::atomic<uint32_t> nconn_active;  ///< wake-up sockets, listeners and UDP devices ever made
  std::atomic<int32_t> conn_rr;  ///< base of the latest connection, -1 at first; timer_rr likewise
  std::atomic<int32_t> timer_rr;
  std::atomic<uint32_t> stop;
  std::atomic<uint32_t> exiting;
  std::atomic<bool> wake_owed;  ///< a wake-up byte could not be sent: a worker sends it later

  rac_connection *free_connections GUARDED_BY(connection_mutex);
  std::atomic<uint32_t> free_connection_n;  ///< written under the mutex, as free_timer_n
  uint32_t connection_n;
  std::unique_ptr<rac_connection[]> connections;
  std::unique_ptr<rac_event[]> read_events;
  std::unique_ptr<rac_event[]> write_events;
  rac_mutex *connection_mutex;
  /// slot + 1 of the connection that owns each descriptor, 0: none of ours; written under the mutex
  std::atomic<uint16_t> fd_owner[PROBE_MAX_FD];

  std::atomic<uint32_t> paused;  ///< listeners that wait for a free slot

  uint32_t timer_n;
  rac_timer *free_timers GUARDED_BY(timer_mutex);
  std::atomic<uint32_t> free_timer_n;
  std::unique_ptr<rac_timer[]> timers;
  std::unique_ptr<rac_event[]> timer_events;
  rac_mutex *timer_mutex;

  /// Under operate_mutex. Grows with each operation given back, instead of the count of free ones.
  /// Kept for compatibility: no decision reads either.
  uint32_t operate_n;
  rac_mutex *operate_mutex;
  std::unique_ptr<rac_operate[]> operates;
  rac_operate *free_operates GUARDED_BY(operate_mutex);
  uint32_t free_operate_n GUARDED_BY(operate_mutex);  ///< only ever falls, see operate_n

  std::unique_ptr<rac_base[]> bases;

  std::atomic<uint32_t> started;
  std::atomic<uint32_t> nowait;
  rac_hook hook GUARDED_BY(hook_lock);
  std::atomic<bool> hook_set;  ///< spares the lock on every turn without a hook
  rac_mutex *hook_lock;

  uint32_t monitor_on GUARDED_BY(monitor_lock);
  rac_timer *monitor_timer GUARDED_BY(monitor_lock);  ///< a handle
  const char *monitor_file_name GUARDED_BY(monitor_lock);
  const char *model_name;
  uint32_t monitor_period_ms GUARDED_BY(monitor_lock);
  std::FILE *monitor_file GUARDED_BY(monitor_lock);
  rac_mutex *monitor_lock;

  uint32_t number;        ///< of this instance in the handles, see rac_handle.h
  rac_mutex *state_lock;  ///< life of the worker threads, and turns that are waited for
  rac_cond *state_changed;
  uint32_t threads GUARDED_BY(state_lock);  ///< workers made and not yet joined
  bool joining GUARDED_BY(state_lock);      ///< somebody is at it
  uint32_t joins GUARDED_BY(state_lock);    ///< times that it has been done
};

/// The base whose worker the calling thread is; NULL on every other thread. (constinit: no look-up
/// of an initialising function at each use.)
extern constinit thread_local rac_base *rac_this_base;
