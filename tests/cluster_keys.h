// cluster_keys.h -- where kelvane keys live in a cluster: the server key names of a kelvane key
// (docs/data-layout.md) and kelvane keys that share one slot, picked by asking the cluster itself where their
// server keys hash.
#ifndef KELVANE_TESTS_CLUSTER_KEYS_H
#define KELVANE_TESTS_CLUSTER_KEYS_H

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "redis_cluster.h"

namespace kelvane_test {

// kv{E}: E is the key with '%', '{' and '}' percent-encoded, the empty key a lone '%'. The values hash is the
// same name with ":v" appended.
inline std::string main_server_key(const std::string& key) {
    std::string tag = key.empty() ? "%" : "";
    for (char c : key) {
        if (c == '%') tag += "%25";
        else if (c == '{') tag += "%7B";
        else if (c == '}') tag += "%7D";
        else tag += c;
    }
    return "kv{" + tag + "}";
}

// At least count kelvane keys named prefix<n> whose server keys share one slot (stored in *slot). Among 40000
// names, some slot holds ten or so of them; the cluster answers for all of them in one pipeline.
inline std::vector<std::string> keys_sharing_a_slot(const RedisCluster& cluster, const std::string& prefix,
                                                    size_t count, int* slot) {
    constexpr int kCandidates = 40000;
    std::vector<std::string> names;
    for (int n = 0; n < kCandidates; ++n) names.push_back(main_server_key(prefix + std::to_string(n)));
    const std::vector<int> slots = cluster.key_slots(names);
    std::map<int, std::vector<std::string>> by_slot;
    for (int n = 0; n < kCandidates; ++n) by_slot[slots[n]].push_back(prefix + std::to_string(n));
    const std::vector<std::string>* fullest = &by_slot.begin()->second;
    *slot = by_slot.begin()->first;
    for (const auto& [s, keys] : by_slot) {
        if (keys.size() > fullest->size()) {
            fullest = &keys;
            *slot = s;
        }
    }
    if (fullest->size() < count) throw std::runtime_error("no slot holds enough candidate keys");
    return std::vector<std::string>(fullest->begin(), fullest->begin() + static_cast<long>(count));
}

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_CLUSTER_KEYS_H
