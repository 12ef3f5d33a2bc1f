// Requests from any thread to a base: their pool and the queue of each base. Thread-safe.
#pragma once

#include "eprobe/rac_core.h"

/// Makes (unmakes) the pool of RAC_OPERATIONS requests: 0, or -1 without memory.
int rac_operate_init(rac_core *core);
void rac_operate_destroy(rac_core *core);

/// A request about the connection's present use; NULL when the pool is empty. Give it to a queue,
/// or back.
rac_operate *rac_operate_get(rac_core *core, rac_connection *c);
/// Gives a request back; one that lives in a connection is left alone.
void rac_operate_free(rac_core *core, rac_operate *op);

/// A new empty queue, NULL without memory. What is left in it when it is destroyed stays in the
/// pool's array.
rac_operate_queue *rac_operate_queue_init();
void rac_operate_queue_push(rac_operate_queue *queue, rac_operate *op);
/// The oldest request; NULL when there is none.
rac_operate *rac_operate_queue_pop(rac_operate_queue *queue);
void rac_operate_queue_destroy(rac_operate_queue *queue);
