#include "HeapCount.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

namespace heap {

bool counting = false;
std::ptrdiff_t liveBytes = 0;
std::ptrdiff_t liveBlocks = 0;
std::ptrdiff_t peakBytes = 0;

namespace {

void* allocate(std::size_t n) {
  void* const p = std::malloc(n == 0 ? 1 : n);
  if (!p) throw std::bad_alloc();
  if (counting) {
    liveBytes += static_cast<std::ptrdiff_t>(malloc_usable_size(p));
    ++liveBlocks;
    if (liveBytes > peakBytes) peakBytes = liveBytes;
  }
  return p;
}

void release(void* p) noexcept {
  if (!p) return;
  if (counting) {
    liveBytes -= static_cast<std::ptrdiff_t>(malloc_usable_size(p));
    --liveBlocks;
  }
  std::free(p);
}

}  // namespace
}  // namespace heap

void* operator new(std::size_t n) { return heap::allocate(n); }
void* operator new[](std::size_t n) { return heap::allocate(n); }
void operator delete(void* p) noexcept { heap::release(p); }
void operator delete[](void* p) noexcept { heap::release(p); }
void operator delete(void* p, std::size_t) noexcept { heap::release(p); }
void operator delete[](void* p, std::size_t) noexcept { heap::release(p); }
