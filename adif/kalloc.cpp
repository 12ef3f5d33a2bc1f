// The heap behind the library's own names, with failures that a test can order. See kalloc.h.
#include "adif/kalloc.h"

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<bool> faults_armed{false};
std::atomic<int32_t> faults_until{0};   // allocations that still succeed before the first failure
std::atomic<int32_t> faults_wanted{0};  // allocations that are still to fail
std::atomic<int32_t> faults_made{0};

bool must_fail() {
  if (!faults_armed.load(std::memory_order_relaxed)) [[likely]]
    return false;
  if (faults_until.fetch_sub(1) > 0) return false;
  faults_until.store(0);
  if (faults_wanted.load() != adif::kFailForGood && faults_wanted.fetch_sub(1) <= 0) {
    faults_armed = false;
    return false;
  }
  ++faults_made;
  return true;
}

bool acceptable(int64_t size) {
  // A larger block could not be indexed; on 32 bits a 64-bit size must not be cut short.
  return size >= 1 && size <= PTRDIFF_MAX && !must_fail();
}

}  // namespace

void *kalloc_dbg(int64_t size, adif::source_place) {
  return acceptable(size) ? std::malloc(static_cast<size_t>(size)) : nullptr;
}

void *kzalloc_dbg(int64_t size, adif::source_place) {
  return acceptable(size) ? std::calloc(1, static_cast<size_t>(size)) : nullptr;
}

void *krealloc_dbg(void *p, int64_t size, adif::source_place) {
  return acceptable(size) ? std::realloc(p, static_cast<size_t>(size)) : nullptr;
}

void kfree_dbg(void *p, adif::source_place) {
  std::free(p);
}

namespace adif {

void fail_allocations(int32_t nth, int32_t count) {
  faults_armed = false;
  faults_until = nth - 1;
  faults_wanted = count;
  faults_made = 0;
  faults_armed = nth >= 1;
}

int32_t failed_allocations() {
  return faults_made.load();
}

bool allocations_fail_for_good() {
  return faults_armed.load(std::memory_order_relaxed) && faults_until.load() == 0 &&
         faults_wanted.load() == kFailForGood;
}

}  // namespace adif
