// values_sizes.h -- how many values the values hashes of a client's most
// recently read keys held, so that a range read can choose its path before
// it knows.
//
// Reading the whole values hash in the range read's own transaction saves a
// round trip, but its cost grows with the hash, and joining it to the
// members by name (a random access per value) costs more than asking for
// just the members' values once a hash holds some thousands. The size a
// read last saw is a hint for the next: a wrong one costs time, never
// correctness. A few keys are remembered, the oldest forgotten first. The
// threads that share a client share its hints, under a lock held for a
// look-up or a note alone.
#ifndef KELVANE_VALUES_SIZES_H
#define KELVANE_VALUES_SIZES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>

namespace kelvane {

class ValuesSizes {
public:
    static uint64_t key_hash(std::string_view key) { return std::hash<std::string_view>{}(key); }

    std::optional<std::size_t> find(uint64_t key) const {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const Entry& e : entries_) {
            if (e.used && e.key == key) return e.size;
        }
        return std::nullopt;
    }

    void note(uint64_t key, std::size_t size) {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (Entry& e : entries_) {
            if (e.used && e.key == key) {
                e.size = size;
                return;
            }
        }
        entries_[next_] = Entry{key, size, true};
        next_ = (next_ + 1) % entries_.size();
    }

private:
    struct Entry {
        uint64_t key = 0;
        std::size_t size = 0;
        bool used = false;
    };
    mutable std::mutex mutex_;
    std::array<Entry, 16> entries_{};
    std::size_t next_ = 0;
};

}  // namespace kelvane

#endif  // KELVANE_VALUES_SIZES_H
