// Pool and queues of the requests to a base. See rac_operate.h.
#include "eprobe/rac_operate.h"

#include <new>

#include "eprobe/rac_handle.h"

int rac_operate_init(rac_core *core) {
  core->operate_mutex = rac_mutex_init();
  core->operates.reset(new (std::nothrow) rac_operate[RAC_OPERATION_BUFFER]{});
  if (core->operate_mutex == nullptr || core->operates == nullptr) return -1;
  rac_guard guard(core->operate_mutex);
  core->free_operates = nullptr;
  core->free_operate_n = core->operate_n;
  for (uint32_t slot = core->operate_n; slot-- > 0;) {
    rac_operate &op = core->operates[slot];
    op.slot = slot;
    op.next = core->free_operates;
    core->free_operates = &op;
  }
  return 0;
}

void rac_operate_destroy(rac_core *core) {
  core->operates.reset();
  rac_mutex_destroy(core->operate_mutex);
  core->operate_mutex = nullptr;
}

rac_operate *rac_operate_get(rac_core *core, rac_connection *c) {
  rac_operate *op = nullptr;
  {
    rac_guard guard(core->operate_mutex);
    op = core->free_operates;
    if (op == nullptr) return nullptr;
    core->free_operates = op->next;
    --core->free_operate_n;
  }
  const uint32_t ident = c->ident.load(std::memory_order_relaxed);
  *op = {op->slot, c, 0, 0, rac_generation_of(ident), 0, nullptr};
  return op;
}

void rac_operate_free(rac_core *core, rac_operate *op) {
  // The request to close lives in its connection.
  if (op->slot == RAC_NO_SLOT) return;
  rac_guard guard(core->operate_mutex);
  op->next = core->free_operates;
  core->free_operates = op;
  // The wrong count (meant, see rac_core.h).
  ++core->operate_n;
}

rac_operate_queue *rac_operate_queue_init() {
  auto *queue = new (std::nothrow) rac_operate_queue{};
  if (queue == nullptr) return nullptr;
  queue->lock = rac_mutex_init();
  if (queue->lock != nullptr) return queue;
  delete queue;
  return nullptr;
}

void rac_operate_queue_push(rac_operate_queue *queue, rac_operate *op) {
  op->next = nullptr;
  rac_guard guard(queue->lock);
  if (queue->tail == nullptr)
    queue->head = op;
  else
    queue->tail->next = op;
  queue->tail = op;
  // For the look in rac_operate_queue_pop; the entries themselves are passed on by the lock.
  queue->waiting.fetch_add(1, std::memory_order_release);
}

rac_operate *rac_operate_queue_pop(rac_operate_queue *queue) {
  // Spares a base the lock on most turns. Who pushes after this look wakes the base.
  if (queue->waiting.load(std::memory_order_acquire) == 0) return nullptr;
  rac_guard guard(queue->lock);
  rac_operate *op = queue->head;
  if (op == nullptr) return nullptr;
  queue->head = op->next;
  if (queue->head == nullptr) queue->tail = nullptr;
  queue->waiting.fetch_sub(1, std::memory_order_relaxed);
  return op;
}

void rac_operate_queue_destroy(rac_operate_queue *queue) {
  if (queue == nullptr) return;
  rac_mutex_destroy(queue->lock);
  delete queue;
}
