// test_cluster_keys.cpp -- kelvane keys that look like hash tags or like their own encoding, zero bytes, the empty
// key, long and binary keys, in a cluster: each is written and read back through the library, its two server
// keys sit together on the master that serves the slot the cluster computes for their names, and the client
// reaches that master at once, without being redirected.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "cluster_client.h"
#include "cluster_keys.h"
#include "redis_cluster.h"

namespace kelvane_test {
namespace {

using namespace std::string_literals;

std::string all_bytes() {
    std::string s;
    for (int b = 255; b >= 0; --b) s += static_cast<char>(b);
    return s;
}

const std::vector<std::string>& awkward_keys() {
    static const std::vector<std::string> keys = {
        "{", "}", "a{b}c", "{}", "}{", "{a}", "%", "%7B", "%25", "%7D%", "kv{x}", "x}:v",
        ""s, "\0"s, "a\0b"s, "{\0}"s, "\xff\xfe{\x80}"s, all_bytes(),
        std::string(4000, 'k') + "{tag}", std::string(70000, '{'),
    };
    return keys;
}

TEST(Keys, AwkwardKeysLiveTogetherOnTheirSlotsMaster) {
    RedisCluster cluster;
    KvClient client;
    ASSERT_EQ(client.add_seed(cluster.masters().front()), KV_SUCCESS);
    // A few calls first, so that whatever the client learns lazily (the slot map, its connections) is learnt
    // before redirections are counted.
    for (const char* warm : {"warm-a", "warm-b", "warm-c", "warm-d", "warm-e", "warm-f"}) {
        ASSERT_EQ(client.zaddval(warm, 1, "m", "v"), KV_SUCCESS) << warm;
        ASSERT_EQ(client.del(warm), KV_SUCCESS) << warm;
    }
    cluster.reset_error_stats();

    const auto& keys = awkward_keys();
    for (size_t i = 0; i < keys.size(); ++i) {
        const std::string& key = keys[i];
        const std::string member = "member\0{"s + std::to_string(i) + "}";
        const std::string value = "value\0}"s + key.substr(0, 64);
        SCOPED_TRACE("key " + std::to_string(i));
        ASSERT_EQ(client.zaddval(key, static_cast<double>(i), member, value), KV_SUCCESS);
        ASSERT_EQ(client.zaddval(key, -1.5, "plain", ""), KV_SUCCESS);
        const KvClient::Scored scored = client.zscore(key, member);
        EXPECT_EQ(scored.status, KV_SUCCESS);
        EXPECT_EQ(scored.score, static_cast<double>(i));
        EXPECT_EQ(scored.value, value);
        const KvClient::Members all = client.zrange_all(key);
        EXPECT_EQ(all.status, KV_SUCCESS);
        EXPECT_EQ(all.items.size(), 2u);
    }
    // The client computed every key's slot as the cluster does: nobody had to redirect it.
    for (int port : cluster.ports()) {
        EXPECT_EQ(cluster.error_count(port, "MOVED"), 0) << "node " << port;
    }

    // Where each server key is: the masters' own key lists, nothing but these keys anywhere.
    std::map<std::string, std::vector<int>> holders;
    for (int port : cluster.masters()) {
        for (const auto& k : cluster.keys_on(port)) holders[k].push_back(port);
    }
    EXPECT_EQ(holders.size(), 2 * keys.size()) << "server keys that are not the awkward keys' own";
    std::map<int, int> keys_per_master;
    for (size_t i = 0; i < keys.size(); ++i) {
        SCOPED_TRACE("key " + std::to_string(i));
        const std::string main = main_server_key(keys[i]);
        const std::string values = main + ":v";
        const std::vector<int> slots = cluster.key_slots({main, values});
        EXPECT_EQ(slots[0], slots[1]) << "the two server keys hash apart";
        const int owner = cluster.owner_of_slot(slots[0]);
        EXPECT_EQ(holders[main], std::vector<int>{owner});
        EXPECT_EQ(holders[values], std::vector<int>{owner});
        ++keys_per_master[owner];
    }
    EXPECT_EQ(keys_per_master.size(), 3u) << "the keys should spread over every master";

    for (const auto& key : keys) EXPECT_EQ(client.del(key), KV_SUCCESS);
    for (int port : cluster.masters()) EXPECT_EQ(cluster.keys_on(port), std::vector<std::string>{}) << port;
}

}  // namespace
}  // namespace kelvane_test
