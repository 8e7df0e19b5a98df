// memory_manager.cpp -- kv_mm_create, kv_mm_destroy and the buffers they
// hand out.
//
// release() gets the pointer alone, so each buffer carries a small header
// in front of it that names its manager. The manager lives until it is
// destroyed and the last of its buffers has been released, so a buffer that
// outlives kv_mm_destroy can still be released safely.
#include "memory_manager.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kelvane {
namespace {

struct Manager;

// Sits in front of every buffer; its size keeps the buffer aligned for any
// type.
struct alignas(alignof(std::max_align_t)) BufferHeader {
    Manager* owner;
    std::size_t size;
};

void* default_alloc(void*, std::size_t size) { return std::malloc(size); }
void default_free(void*, void* p) { std::free(p); }

// kv_mm comes first, so a kv_mm* from the caller converts back to Manager*.
struct Manager {
    kv_mm pub;
    kv_alloc_fn alloc;
    kv_free_fn free;
    void* ctx;
    std::size_t byte_limit;
    std::atomic<std::size_t> live_buffers;
    std::atomic<std::size_t> live_bytes;
    // One reference for the caller's handle and one for each live buffer.
    std::atomic<std::size_t> refs;
};

Manager* manager_of(const kv_mm* mm) {
    return reinterpret_cast<Manager*>(const_cast<kv_mm*>(mm));
}

void drop_ref(Manager* m) {
    if (m->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        kv_free_fn free_fn = m->free;
        void* ctx = m->ctx;
        m->~Manager();
        free_fn(ctx, m);
    }
}

void* allocate(kv_mm* mm, std::size_t size) {
    if (mm == nullptr) return nullptr;
    Manager* m = manager_of(mm);
    if (size > SIZE_MAX - sizeof(BufferHeader)) return nullptr;
    if (m->byte_limit != 0) {
        std::size_t before = m->live_bytes.fetch_add(size, std::memory_order_relaxed);
        if (before + size > m->byte_limit || before + size < before) {
            m->live_bytes.fetch_sub(size, std::memory_order_relaxed);
            return nullptr;
        }
    } else {
        m->live_bytes.fetch_add(size, std::memory_order_relaxed);
    }
    void* raw = m->alloc(m->ctx, sizeof(BufferHeader) + size);
    if (raw == nullptr) {
        m->live_bytes.fetch_sub(size, std::memory_order_relaxed);
        return nullptr;
    }
    auto* header = new (raw) BufferHeader{m, size};
    m->live_buffers.fetch_add(1, std::memory_order_relaxed);
    m->refs.fetch_add(1, std::memory_order_relaxed);
    return header + 1;
}

void release(void* p) {
    if (p == nullptr) return;
    auto* header = static_cast<BufferHeader*>(p) - 1;
    Manager* m = header->owner;
    m->live_bytes.fetch_sub(header->size, std::memory_order_relaxed);
    m->live_buffers.fetch_sub(1, std::memory_order_relaxed);
    m->free(m->ctx, header);
    drop_ref(m);
}

std::size_t live_count(const kv_mm* mm) {
    if (mm == nullptr) return 0;
    return manager_of(mm)->live_buffers.load(std::memory_order_relaxed);
}

}  // namespace

void MmRelease::operator()(void* p) const noexcept { release(p); }

MmBuffer mm_allocate(kv_mm* mm, std::size_t size) {
    return MmBuffer(static_cast<char*>(allocate(mm, size)));
}

MmBuffer mm_copy(kv_mm* mm, const char* bytes, std::size_t size) {
    if (size == SIZE_MAX) return MmBuffer();
    MmBuffer out = mm_allocate(mm, size + 1);
    if (out) {
        if (size != 0) std::memcpy(out.get(), bytes, size);
        out.get()[size] = '\0';
    }
    return out;
}

}  // namespace kelvane

using kelvane::Manager;

extern "C" kv_mm* kv_mm_create(kv_alloc_fn alloc, kv_free_fn free, void* ctx,
                               std::size_t byte_limit) {
    // An allocator without its matching free (or the reverse) cannot be used.
    if ((alloc == nullptr) != (free == nullptr)) return nullptr;
    if (alloc == nullptr) {
        alloc = kelvane::default_alloc;
        free = kelvane::default_free;
    }
    void* raw = alloc(ctx, sizeof(Manager));
    if (raw == nullptr) return nullptr;
    auto* m = new (raw) Manager{};
    m->pub.allocate = kelvane::allocate;
    m->pub.live_count = kelvane::live_count;
    m->pub.user_data = nullptr;
    m->pub.release = kelvane::release;
    m->alloc = alloc;
    m->free = free;
    m->ctx = ctx;
    m->byte_limit = byte_limit;
    m->refs.store(1);
    return &m->pub;
}

extern "C" void kv_mm_destroy(kv_mm* mm) {
    if (mm == nullptr) return;
    kelvane::drop_ref(kelvane::manager_of(mm));
}
