// counting_manager.h -- a kelvane memory manager over an allocator that
// counts its blocks. live_count() says what the library believes is out;
// the allocator's own count says what really is, the manager's own memory
// included, so after kv_mm_destroy it must come back to zero: a buffer freed
// behind the manager's back, or one never freed, shows up there.
#ifndef KELVANE_TESTS_MODEL_COUNTING_MANAGER_H
#define KELVANE_TESTS_MODEL_COUNTING_MANAGER_H

#include <atomic>
#include <cstdlib>

#include "kelvane.h"

namespace kelvane_model {

class CountingManager {
public:
    CountingManager() : mm_(kv_mm_create(&allocate, &free_block, this, 0)) {}
    ~CountingManager() { destroy(); }
    CountingManager(const CountingManager&) = delete;
    CountingManager& operator=(const CountingManager&) = delete;

    kv_mm* get() const { return mm_; }
    // Buffers the manager says are handed out and not yet released.
    size_t live() const { return mm_ != nullptr ? mm_->live_count(mm_) : 0; }
    // Destroys the manager and returns the allocator's blocks still out.
    long destroy() {
        if (mm_ != nullptr) kv_mm_destroy(mm_);
        mm_ = nullptr;
        return blocks_.load();
    }

private:
    static void* allocate(void* ctx, size_t size) {
        void* p = std::malloc(size != 0 ? size : 1);
        if (p != nullptr) ++static_cast<CountingManager*>(ctx)->blocks_;
        return p;
    }
    static void free_block(void* ctx, void* p) {
        if (p == nullptr) return;
        --static_cast<CountingManager*>(ctx)->blocks_;
        std::free(p);
    }

    std::atomic<long> blocks_{0};
    kv_mm* mm_;
};

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_COUNTING_MANAGER_H
