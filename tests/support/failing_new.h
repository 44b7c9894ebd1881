// Memory that runs out when a test wants it to. For one source of a program.
#pragma once

#include <cstdlib>
#include <new>

namespace {

// How many allocations of the thread still succeed; negative: all.
thread_local int t_nAllocationsLeft = -1;
thread_local bool t_bAllocationFailed = false;

}  // namespace

void* operator new(size_t size) {
  if (t_nAllocationsLeft == 0) {
    t_bAllocationFailed = true;
    throw std::bad_alloc();
  }
  if (t_nAllocationsLeft > 0) --t_nAllocationsLeft;
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t) noexcept {
  std::free(block);
}
