// memory_manager.h -- the kv_mm behind kv_mm_create: hands out every buffer
// the library returns, counts the live ones, and frees each through release()
// given the pointer alone.
#ifndef KELVANE_MEMORY_MANAGER_H
#define KELVANE_MEMORY_MANAGER_H

#include <cstddef>
#include <memory>

#include "kelvane.h"

namespace kelvane {

// Frees a buffer through the release() of the manager that handed it out.
struct MmRelease {
    void operator()(void* p) const noexcept;
};
// A result buffer owned until it is handed to the caller with release().
using MmBuffer = std::unique_ptr<char, MmRelease>;

// Frees a buffer that was handed out by any manager (nullptr: nothing).
inline void mm_release(void* p) noexcept { MmRelease{}(p); }

// Allocates size bytes through mm; an empty pointer when mm says no.
MmBuffer mm_allocate(kv_mm* mm, std::size_t size);

// A copy of bytes[0..size) followed by a zero byte that the length does not
// count, so that C callers can also treat a returned value as text.
MmBuffer mm_copy(kv_mm* mm, const char* bytes, std::size_t size);

}  // namespace kelvane

#endif  // KELVANE_MEMORY_MANAGER_H
