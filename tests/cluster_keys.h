// cluster_keys.h -- where kelvane keys live in a cluster: the server key name of a kelvane key
// (docs/data-layout.md), and kelvane keys grouped by slot, as the cluster itself computes the slots.
#ifndef KELVANE_TESTS_CLUSTER_KEYS_H
#define KELVANE_TESTS_CLUSTER_KEYS_H

#include <map>
#include <string>
#include <vector>

#include "redis_cluster.h"

namespace kelvane_test {

// kv{E}: E is the key with '%', '{' and '}' percent-encoded, the empty key a lone '%'. The values hash is the
// same name with ":v" appended.
inline std::string main_server_key(const std::string& key) {
    std::string tag = key.empty() ? "%" : "";
    for (char c : key) tag += c == '%' ? "%25" : c == '{' ? "%7B" : c == '}' ? "%7D" : std::string(1, c);
    return "kv{" + tag + "}";
}

// Kelvane keys by the slot of their server keys (CLUSTER KEYSLOT). A prefix followed by every two-byte suffix
// (zero bytes, braces and '%' among them) reaches every CRC16 value once, so each prefix puts about four keys in
// every slot.
inline std::map<int, std::vector<std::string>> keys_by_slot(const RedisCluster& cluster,
                                                            const std::vector<std::string>& prefixes) {
    std::vector<std::string> keys, server_keys;
    for (const auto& prefix : prefixes) {
        for (int s = 0; s < 65536; ++s) {
            keys.push_back(prefix + static_cast<char>(s >> 8) + static_cast<char>(s & 255));
            server_keys.push_back(main_server_key(keys.back()));
        }
    }
    const std::vector<int> slots = cluster.key_slots(server_keys);
    std::map<int, std::vector<std::string>> by_slot;
    for (size_t i = 0; i < keys.size(); ++i) by_slot[slots[i]].push_back(keys[i]);
    return by_slot;
}

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_CLUSTER_KEYS_H
