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

void* operator new(size_t size, std::align_val_t alignment) {
  if (t_nAllocationsLeft == 0) {
    t_bAllocationFailed = true;
    throw std::bad_alloc();
  }
  if (t_nAllocationsLeft > 0) --t_nAllocationsLeft;
  const auto step = static_cast<size_t>(alignment);
  if (void* block = std::aligned_alloc(step, (size / step + 1) * step)) return block;
  throw std::bad_alloc();
}
void* operator new(size_t size) {
  return operator new (size, std::align_val_t{alignof(std::max_align_t)});
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t) noexcept {
  std::free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t, std::align_val_t) noexcept {
  std::free(block);
}
