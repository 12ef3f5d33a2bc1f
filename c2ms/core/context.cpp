// See context.h. The process-wide defaults of a context stand here too (c2ms.h describes them).
#include "c2ms/core/context.h"

#include <sys/mman.h>

#include <algorithm>
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

namespace {

constexpr size_t page_bytes = 4096;  // or a multiple of what the system has: then all is written

// Whole pages are given back to the system, which hands out zeros when they are touched again: a
// big cache costs the memory that has been read into it, not its size.
void make_zero(uint8_t *block, size_t size) {
  const auto begin = reinterpret_cast<uintptr_t>(block);
  const uintptr_t first_page = (begin + page_bytes - 1) / page_bytes * page_bytes;
  const uintptr_t end = (begin + size) / page_bytes * page_bytes;
  void *const pages = reinterpret_cast<void *>(first_page);
  if (first_page >= end || madvise(pages, end - first_page, MADV_DONTNEED) != 0) {
    std::memset(block, 0, size);
    return;
  }
  std::memset(block, 0, first_page - begin);
  std::memset(reinterpret_cast<void *>(end), 0, begin + size - end);
}

}  // namespace

void *c2ms_mem_alloc(c2ms_mgmt *mgmt, int32_t size) {
  if (mgmt == nullptr || size < 1) return nullptr;
  void *block;
  {
    const adif::Guard lock(mgmt->mem_lock);
    block = mem_unit_alloc(mgmt->mem, size);
  }
  if (block == nullptr) return kzalloc_dbg(size);
  make_zero(static_cast<uint8_t *>(block), static_cast<size_t>(size));
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

void c2ms_mem_shrink(c2ms_mgmt *mgmt, void *ptr, int32_t size) {
  const adif::Guard lock(mgmt->mem_lock);
  mem_unit_shrinkto(mgmt->mem, ptr, size);
}

int32_t c2ms_mem_avail(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->mem_lock);
  return static_cast<int32_t>(std::min<int64_t>(mem_unit_availsize(mgmt->mem), INT32_MAX));
}

c2ms::host_name c2ms::entry_server(c2ms_mgmt *mgmt) {
  const adif::Guard lock(mgmt->conf_lock);
  return mgmt->entry_server;
}
