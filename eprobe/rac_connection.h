// Connections: their pool, the descriptors they own, and the ways in which any thread hands one to
// a base. Thread-safe unless said otherwise.
#pragma once

#include "eprobe/rac_core.h"

/// Makes (unmakes) the pool of `connection_n` connections with their events: 0, or -1 without
/// memory.
int rac_connection_init(rac_core *core);
void rac_connection_destroy(rac_core *core);

/// A fresh connection that owns `fd` (-1: none yet). NULL when the pool is empty, and for a
/// descriptor that select cannot hold; the descriptor then stays the caller's.
rac_connection *rac_get_connection(rac_core *core, int fd);
/// Gives a slot without descriptor back; its handles find nothing from here on.
void rac_free_connection(rac_core *core, rac_connection *c);
/// Unregisters the events, closes the descriptor (unless somebody else has closed it) and gives the
/// slot back. Does nothing without descriptor. For the base's thread, or while no thread knows the
/// connection.
void rac_close_connection(rac_core *core, rac_connection *c);

/// Makes `fd` the connection's. A connection that still has that number has lost its descriptor
/// behind the engine's back: its base is told to find out.
void rac_own_fd(rac_connection *c, int fd);
bool rac_owns_fd(const rac_connection *c);
/// Whether the number still leads to the connection's own socket; asks the kernel.
bool rac_has_socket(const rac_connection *c);
/// The number is not the connection's any more; whoever closes it does so after this.
void rac_disown_fd(rac_connection *c);

/// Moves the round-robin cursor on and makes the base there the connection's.
void rac_set_base(rac_core *core, rac_connection *c);

/// Queues request `op` (0 to 9, see rac_op) to the connection's base and wakes it. The cursor moves
/// on each time; a connection with a registered event or a request under way keeps its base. 0, or
/// -1 for another `op` or when no request is free; closing (7) never lacks one.
int rac_dispatch_connection(rac_core *core, rac_connection *c, int op);

/// The same to a base of the caller's choice, for a connection that no base has yet.
int rac_dispatch_to(rac_base *base, rac_connection *c, rac_op op);

/// The same to the next base, with a request of rac_operate_get that the caller has in hand: cannot
/// fail. For a connection that no base has yet.
void rac_dispatch_with(rac_operate *request, rac_op op);

/// Queues a SetNotify `mask` to the connection's base; -1 when no request is free.
int rac_dispatch_notify(rac_connection *c, uint32_t generation, uint32_t mask);

/// Queues the closing; only for the caller of a successful rac_mark_removing.
void rac_dispatch_removal(rac_connection *c);

/// Puts a listener into (out of) its base's list of those that wait for a free slot: whoever frees
/// one then wakes all bases. For the base's thread.
void rac_pause(rac_base *base, rac_connection *listener);
void rac_unpause(rac_base *base, rac_connection *listener);

/// Calls the connection's handler with an event kind, unless it has none or is being removed. For
/// the base's thread.
void rac_tell(rac_connection *c, int event);
