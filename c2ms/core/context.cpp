// See context.h. The process-wide defaults of a context stand here too (c2ms.h describes them).
#include "c2ms/core/context.h"

#include <cstring>

#include "adif/kalloc.h"
#include "c2ms.h"

uint32_t g_oemid = 102;
uint32_t g_version = 30;
uint32_t g_vendorid = 0;
uint16_t g_proto_ver = 1;
const char *g_entry_server = "127.0.0.1";
const char *g_perf_server = "127.0.0.1";
const char *g_build_time = "Oct 11 2011 11:18:31";

void *c2ms_mem_alloc(c2ms_mgmt *mgmt, int32_t size) {
  if (mgmt == nullptr || size < 1) return nullptr;
  void *block;
  {
    const adif::Guard lock(mgmt->mem_lock);
    block = mem_unit_alloc(mgmt->mem, size);
  }
  if (block == nullptr) return kzalloc_dbg(size);
  std::memset(block, 0, static_cast<size_t>(size));
  return block;
}

int c2ms_mem_free(c2ms_mgmt *mgmt, void *ptr) {
  if (mgmt == nullptr) return -1;
  if (ptr == nullptr) return -2;
  {
    const adif::Guard lock(mgmt->mem_lock);
    if (mem_unit_free(mgmt->mem, ptr) >= 0) return 0;
  }
  const auto *const byte = static_cast<const uint8_t *>(ptr);
  const bool in_arena = byte >= mgmt->arena && byte < mgmt->arena + mgmt->mem_size;
  if (!in_arena) kfree_dbg(ptr);  // a stray pointer into the arena is nobody's to free
  return 0;
}

int32_t c2ms_mem_avail(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->mem_lock);
  return static_cast<int32_t>(mem_unit_availsize(mgmt->mem));
}

c2ms::host_name c2ms::entry_server(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->conf_lock);
  return mgmt->entry_server;
}
