// Memory that runs out when a test wants it to. For one source of a program.
#pragma once

#include <cstdlib>
#include <new>

namespace {

// How many allocations still succeed; negative: all.
int g_nAllocationsLeft = -1;
bool g_bAllocationFailed = false;

}  // namespace

void* operator new(size_t size) {
  if (g_nAllocationsLeft == 0) {
    g_bAllocationFailed = true;
    throw std::bad_alloc();
  }
  if (g_nAllocationsLeft > 0) --g_nAllocationsLeft;
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, size_t) noexcept {
  std::free(block);
}
