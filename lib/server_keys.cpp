// server_keys.cpp -- the encoding of kelvane keys into server key names.
#include "server_keys.h"

namespace kelvane {

ServerKeys server_keys(const char* key, std::size_t key_len) {
    std::string tag;
    tag.reserve(key_len + 8);
    if (key_len == 0) {
        // Percent-encoding never yields a lone '%', so this names no other
        // key, and it keeps the hash tag non-empty: Redis Cluster hashes a
        // key with an empty "{}" whole, which would split the pair.
        tag = "%";
    }
    for (std::size_t i = 0; i < key_len; ++i) {
        switch (key[i]) {
            case '%': tag += "%25"; break;
            case '{': tag += "%7B"; break;
            case '}': tag += "%7D"; break;
            default: tag += key[i]; break;
        }
    }
    ServerKeys keys;
    keys.main = "kv{" + tag + "}";
    keys.values = keys.main + ":v";
    return keys;
}

}  // namespace kelvane
