// Heap accounting shared by the benchmarks: while `heap::counting` is set,
// every block the global operator new hands out or operator delete takes
// back is counted by the size malloc reserved for it (malloc_usable_size),
// and the highest live total is kept. The benchmarks are single-threaded.
#ifndef RSVP_BENCH_HEAPCOUNT_H
#define RSVP_BENCH_HEAPCOUNT_H

#include <cstddef>

namespace heap {

extern bool counting;
extern std::ptrdiff_t liveBytes;
extern std::ptrdiff_t liveBlocks;
extern std::ptrdiff_t peakBytes;

// Starts counting from zero.
inline void start() {
  liveBytes = 0;
  liveBlocks = 0;
  peakBytes = 0;
  counting = true;
}

}  // namespace heap

#endif  // RSVP_BENCH_HEAPCOUNT_H
