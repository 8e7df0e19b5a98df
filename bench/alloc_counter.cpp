// alloc_counter.cpp -- the allocator entry points of the whole process,
// forwarding to glibc's own (__libc_malloc and friends) after counting.
//
// glibc supports replacing malloc this way: every library, libc's internal
// allocations that callers free included, calls through the symbols defined
// here. The counters are thread-local, so a measurement window in the client
// thread is never disturbed by another thread, and they are plain integers
// (no locks, no allocation) so that counting never recurses.
#include "alloc_counter.h"

#include <malloc.h>

#include <cerrno>
#include <cstddef>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void __libc_free(void* ptr);
void* __libc_memalign(size_t alignment, size_t size);
void* __libc_valloc(size_t size);
void* __libc_pvalloc(size_t size);
}

namespace {

thread_local kelvane_bench::AllocTotals totals{0, 0, 0, 0};

}  // namespace

namespace kelvane_bench {

AllocTotals alloc_totals() { return totals; }

void reset_peak() { totals.peak_bytes = totals.live_bytes; }

}  // namespace kelvane_bench

// A sanitizer build brings its own allocator, which must stay the only one:
// there the counters stay at zero and the report leaves the columns empty.
#ifndef KELVANE_BENCH_NO_ALLOC_COUNTER
namespace {

void note_allocated(void* ptr) {
    ++totals.allocations;
    if (ptr == nullptr) return;
    totals.live_bytes += static_cast<std::int64_t>(malloc_usable_size(ptr));
    if (totals.live_bytes > totals.peak_bytes) totals.peak_bytes = totals.live_bytes;
}

void note_freed(void* ptr) {
    if (ptr == nullptr) return;
    ++totals.frees;
    totals.live_bytes -= static_cast<std::int64_t>(malloc_usable_size(ptr));
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
    void* p = __libc_malloc(size);
    note_allocated(p);
    return p;
}

void* calloc(size_t count, size_t size) {
    void* p = __libc_calloc(count, size);
    note_allocated(p);
    return p;
}

void* realloc(void* ptr, size_t size) {
    // The old block's bytes leave the count before the new block's enter;
    // glibc may hand back the same block, grown in place.
    const std::int64_t old_bytes = ptr ? static_cast<std::int64_t>(malloc_usable_size(ptr)) : 0;
    if (ptr != nullptr && size == 0) {  // glibc frees the block and answers NULL
        note_freed(ptr);
        return __libc_realloc(ptr, 0);
    }
    void* p = __libc_realloc(ptr, size);
    if (p == nullptr && size != 0) {
        ++totals.allocations;  // failed: the old block is untouched
        return nullptr;
    }
    if (ptr != nullptr) totals.live_bytes -= old_bytes;
    note_allocated(p);
    return p;
}

void free(void* ptr) {
    note_freed(ptr);
    __libc_free(ptr);
}

void* memalign(size_t alignment, size_t size) {
    void* p = __libc_memalign(alignment, size);
    note_allocated(p);
    return p;
}

void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void** out, size_t alignment, size_t size) {
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
    void* p = memalign(alignment, size);
    if (p == nullptr) return ENOMEM;
    *out = p;
    return 0;
}

void* valloc(size_t size) {
    void* p = __libc_valloc(size);
    note_allocated(p);
    return p;
}

void* pvalloc(size_t size) {
    void* p = __libc_pvalloc(size);
    note_allocated(p);
    return p;
}

}  // extern "C"
#endif  // KELVANE_BENCH_NO_ALLOC_COUNTER
