// Memory that runs out when a test wants it to. For one source of a program.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

// How many allocations of the thread still succeed; negative: all.
thread_local int t_nAllocationsLeft = -1;
thread_local bool t_bAllocationFailed = false;

}  // namespace

// Runs `work` with no memory at first and one more allocation each time, until none fails. `work`
// tells whether it has done what it was to do, which has to be when it had all it wanted.
template <typename Work>
void WithEverLessShortage(Work work) {
  t_bAllocationFailed = true;
  for (int left = 0; t_bAllocationFailed; ++left) {
    t_bAllocationFailed = false;
    t_nAllocationsLeft = left;
    const bool bDone = work();
    t_nAllocationsLeft = -1;
    EXPECT_EQ(bDone, !t_bAllocationFailed) << left;
  }
}

// Whether an allocation is to fail now.
inline bool MustFail() {
  if (t_nAllocationsLeft == 0) return t_bAllocationFailed = true;
  if (t_nAllocationsLeft > 0) --t_nAllocationsLeft;
  return false;
}

void* operator new(size_t size) {
  void* const block = MustFail() ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t) noexcept {
  std::free(block);
}

// What a loop queues lies in memory that comes from here.
extern "C" void* aligned_alloc(size_t alignment, size_t size) noexcept {
  void* block = nullptr;
  return !MustFail() && posix_memalign(&block, alignment, size) == 0 ? block : nullptr;
}
