// The heap, with failures. In a plain build malloc, calloc and realloc are replaced for the whole
// process: the C and C++ libraries' and libgcrypt's requests fail too. The address sanitizer keeps
// its own: there the library's own calls are wrapped, and operator new is replaced.
#include <cerrno>
#include <new>

#include "plan.h"

using sweep::call;
using sweep::plan::fails;

extern "C" {

#ifdef __SANITIZE_ADDRESS__

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);

void *__wrap_malloc(size_t size) {
  return fails(call::allocation) ? nullptr : __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size) {
  return fails(call::allocation) ? nullptr : __real_calloc(count, size);
}
void *__wrap_realloc(void *block, size_t size) {
  return fails(call::allocation) ? nullptr : __real_realloc(block, size);
}

#else

// The C library's own entries.
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);

void *malloc(size_t size) {
  return fails(call::allocation) ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
  return fails(call::allocation) ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *block, size_t size) {
  return fails(call::allocation) ? nullptr : __libc_realloc(block, size);
}

#endif

}  // extern "C"

#ifdef __SANITIZE_ADDRESS__

void *operator new(size_t size, const std::nothrow_t &) noexcept {
  return fails(call::allocation) ? nullptr : __real_malloc(size);
}
void *operator new(size_t size) {
  void *const block = operator new(size, std::nothrow);
  return block != nullptr ? block : throw std::bad_alloc();
}
void *operator new[](size_t size) {
  return operator new(size);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
  return operator new(size, std::nothrow);
}

// A request that can't be met gives NULL; findings have a status of their own. (What is new above
// is malloc's to the sanitizer.)
extern "C" const char *__asan_default_options() {
  return "allocator_may_return_null=1:alloc_dealloc_mismatch=0:exitcode=77";
}

#endif
