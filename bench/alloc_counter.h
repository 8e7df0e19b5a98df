// alloc_counter.h -- counts heap allocations made by this thread, whoever
// makes them. The executable defines malloc, calloc, realloc, free and the
// aligned variants (alloc_counter.cpp); the dynamic linker binds every
// object's calls to them, hiredis's and libkelvane's included, so the
// counters see exactly what one side of the comparison costs.
#ifndef KELVANE_BENCH_ALLOC_COUNTER_H
#define KELVANE_BENCH_ALLOC_COUNTER_H

#include <cstdint>

namespace kelvane_bench {

// What the calling thread has allocated so far. Bytes are usable sizes
// (malloc_usable_size), so they include the allocator's rounding but not
// its headers.
struct AllocTotals {
    std::uint64_t allocations;  // malloc, calloc, realloc and aligned calls
    std::uint64_t frees;        // free calls with a pointer
    std::int64_t live_bytes;    // allocated and not yet freed
    std::int64_t peak_bytes;    // highest live_bytes since the last reset_peak()
};

AllocTotals alloc_totals();

// Starts a new peak from the current live bytes.
void reset_peak();

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_ALLOC_COUNTER_H
