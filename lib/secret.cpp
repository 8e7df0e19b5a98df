// secret.cpp -- wiping secrets.
#include "secret.h"

#include <openssl/crypto.h>

#include <cstring>

namespace kelvane {

void wipe_bytes(void* p, std::size_t n) noexcept {
    if (p != nullptr && n > 0) OPENSSL_cleanse(p, n);
}

Secret::Secret(std::string_view text) : bytes_(new char[text.size() + 1]), size_(text.size()) {
    std::memcpy(bytes_.get(), text.data(), text.size());
    bytes_[size_] = '\0';
}

void Secret::wipe() noexcept {
    if (bytes_) wipe_bytes(bytes_.get(), size_ + 1);
    bytes_.reset();
    size_ = 0;
}

void redact(std::string& text, std::string_view secret) {
    if (secret.empty()) return;
    for (std::size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at)) {
        text.replace(at, secret.size(), "***");
        at += 3;
    }
}

}  // namespace kelvane
