// server_keys.cpp -- the encoding of kelvane keys into server key names, and
// the slot the cluster computes for them, without building the names.
#include "server_keys.h"

#include <cstring>

#include "slot.h"

namespace kelvane {
namespace {

// Calls emit(bytes, len) for each piece of E, in order.
template <class Emit>
void encode(const char* key, std::size_t key_len, Emit&& emit) {
    if (key_len == 0) {
        // Percent-encoding never yields a lone '%', so this names no other
        // key, and it keeps the hash tag non-empty: Redis Cluster hashes a
        // key with an empty "{}" whole, which would split the pair.
        emit("%", 1);
        return;
    }
    std::size_t plain = 0;  // start of the run of bytes kept as they are
    for (std::size_t i = 0; i < key_len; ++i) {
        const char* escape = nullptr;
        switch (key[i]) {
            case '%': escape = "%25"; break;
            case '{': escape = "%7B"; break;
            case '}': escape = "%7D"; break;
            default: continue;
        }
        if (i > plain) emit(key + plain, i - plain);
        emit(escape, 3);
        plain = i + 1;
    }
    if (key_len > plain) emit(key + plain, key_len - plain);
}

}  // namespace

std::size_t server_key_length(const char* key, std::size_t key_len) {
    std::size_t len = 4;  // "kv{" and "}"
    encode(key, key_len, [&](const char*, std::size_t n) { len += n; });
    return len;
}

char* write_server_key(char* out, const char* key, std::size_t key_len) {
    std::memcpy(out, "kv{", 3);
    out += 3;
    encode(key, key_len, [&](const char* bytes, std::size_t n) {
        std::memcpy(out, bytes, n);
        out += n;
    });
    *out++ = '}';
    return out;
}

uint16_t key_slot(const char* key, std::size_t key_len) {
    uint16_t crc = 0;
    encode(key, key_len, [&](const char* bytes, std::size_t n) { crc = crc16_update(crc, bytes, n); });
    return static_cast<uint16_t>(crc & (kSlotCount - 1));
}

}  // namespace kelvane
