// secret.h -- a password in memory the library wipes as soon as it is
// dropped, so that no copy outlives the client that needed it.
//
// The bytes live in one buffer of exactly their size that never grows, so
// no reallocation leaves a copy behind in freed memory, and nothing copies a
// Secret: it moves, or it is shared (the settings of a store are shared by
// all its nodes).
#ifndef KELVANE_SECRET_H
#define KELVANE_SECRET_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace kelvane {

// Overwrites n bytes at p in a way the compiler may not leave out.
void wipe_bytes(void* p, std::size_t n) noexcept;

class Secret {
public:
    Secret() = default;
    explicit Secret(std::string_view text);
    ~Secret() { wipe(); }
    Secret(Secret&& other) noexcept : bytes_(std::move(other.bytes_)), size_(other.size_) {
        other.size_ = 0;
    }
    Secret& operator=(Secret&& other) noexcept {
        wipe();
        bytes_ = std::move(other.bytes_);
        size_ = other.size_;
        other.size_ = 0;
        return *this;
    }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    std::string_view view() const { return {bytes_.get(), size_}; }
    std::size_t size() const { return size_; }
    void wipe() noexcept;

private:
    std::unique_ptr<char[]> bytes_;
    std::size_t size_ = 0;
};

// Replaces every occurrence of secret in text, so that no text the library
// hands out can carry it, whatever a server echoed.
void redact(std::string& text, std::string_view secret);

}  // namespace kelvane

#endif  // KELVANE_SECRET_H
