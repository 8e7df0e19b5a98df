// test_cluster_routing.cpp -- how one client finds its way around a cluster, in steps on one cluster: seeds that
// are down or replicas; awkward keys and the masters' edge slots, each sent straight to its slot's master; a slot
// half moved (ASK, the map unchanged) with a key without values in it (served at once, before and after it moved),
// a key split by the move (TRYAGAIN until the call's bound or until the slot settles), a key made while its slot is
// open (at once) and the move done (MOVED, a refreshed map); a slot nobody serves (CLUSTERDOWN, until it is served
// again); a master's function library flushed; a master turned replica under clients that still map their slots
// there.
#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "redis_cluster.h"
#include "redis_server.h"

namespace kelvane_test {
namespace {

using namespace std::string_literals;

// Writes and reads of a key that has no values hash, with member added at score: answered at once, where a call
// that waited would end with KV_TRY_AGAIN at its bound.
void expect_served_without_values(KvClient& client, const std::string& key, const std::string& member, double score) {
    EXPECT_EQ(client.zadd(key, score, member), KV_SUCCESS);
    const KvClient::Scored got = client.zscore(key, member);
    EXPECT_TRUE(got.status == KV_SUCCESS && got.score == score && !got.value) << got.status;
    const KvClient::Members all = client.zrange_all(key);
    EXPECT_EQ(all.status, KV_SUCCESS);
    for (const auto& [name, item] : all.items) EXPECT_FALSE(item.second) << name << " has a value";
}

// Runs settle() on another thread a second from now: a call made meanwhile must wait for the cluster to settle.
// get() throws what settle() threw.
template <class Settle>
std::future<void> settle_in_a_second(Settle settle) {
    return std::async(std::launch::async, [settle] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        settle();
    });
}

TEST(Routing, SeedsKeysRedirectionsRetriesAndFailover) {
    RedisCluster cluster;
    const std::vector<int> masters = cluster.masters();
    const std::map<int, std::vector<std::string>> by_slot = keys_by_slot(cluster, {"r"});

    KvClient client;
    const int32_t dead_seed = client.add_seed(RedisServer::free_port());
    EXPECT_TRUE(dead_seed == KV_CONNECT_FAILED || dead_seed == KV_TIMEOUT) << dead_seed;
    ASSERT_EQ(client.add_seed(cluster.replica_of(masters[0])), KV_SUCCESS);
    EXPECT_EQ(client.add_seed(cluster.replica_of(masters[0])), KV_ALREADY_EXISTS);

    std::string all_bytes;
    for (int b = 255; b >= 0; --b) all_bytes += static_cast<char>(b);
    std::vector<std::string> keys = {"{", "}", "a{b}c", "{}", "}{", "{a}", "%", "%7B", "%25", "%7D%", "kv{x}", "x}:v",
                                     ""s, "\0"s, "a\0b"s, "{\0}"s, "\xff\xfe{\x80}"s, all_bytes,
                                     std::string(4000, 'k') + "{tag}", std::string(70000, '{')};
    for (int slot : {0, 5460, 5461, 10922, 10923, 16383}) keys.push_back(by_slot.at(slot).front());
    cluster.reset_error_stats();
    for (size_t i = 0; i < keys.size(); ++i) {
        SCOPED_TRACE("key " + std::to_string(i));
        const std::string member = "member\0{"s + std::to_string(i) + "}", value = "value\0}"s + keys[i].substr(0, 64);
        ASSERT_EQ(client.zaddval(keys[i], static_cast<double>(i), member, value), KV_SUCCESS);
        expect_scored(client, keys[i], member, static_cast<double>(i), value);
        const std::string main = main_server_key(keys[i]);
        const int owner = cluster.owner_of_slot(cluster.key_slots({main}).front());
        EXPECT_EQ(cluster.must(owner, {"EXISTS", main, main + ":v"}), "2");
    }
    EXPECT_EQ(cluster.error_count("MOVED"), 0) << "the client computed a slot otherwise than the cluster";

    // Of four keys of one slot, the first is moved to the target while the second stays on the source. The fourth
    // has no values: its values hash exists nowhere, and the cluster refuses the pair of server keys (TRYAGAIN) on
    // either node while the slot is open, but the key's set alone is served at once, on the source and, once it
    // has moved, on the target, where its first value can then be made.
    auto group = by_slot.upper_bound(0);
    while (group->second.size() < 4) ++group;
    const std::string &moved = group->second[0], &stays = group->second[1], &awaited = group->second[2],
                      &bare = group->second[3];
    const int source = cluster.owner_of_slot(group->first);
    const int target = source == masters.back() ? masters.front() : masters.back();
    ASSERT_EQ(client.zaddval(moved, 1, "a", "value a"), KV_SUCCESS);
    ASSERT_EQ(client.zaddval(stays, 2, "b", "value b"), KV_SUCCESS);
    ASSERT_EQ(client.zadd(bare, 1, "a"), KV_SUCCESS);
    const Migration m = cluster.open_migration(group->first, target);
    cluster.move_keys(m, {main_server_key(moved), main_server_key(moved) + ":v"});
    cluster.reset_error_stats();
    expect_scored(client, moved, "a", 1, "value a");
    EXPECT_EQ(client.zaddval(moved, 3, "c", "value c"), KV_SUCCESS);
    expect_scored(client, stays, "b", 2, "value b");
    EXPECT_EQ(client.zaddval(stays, 4, "d", "value d"), KV_SUCCESS);
    EXPECT_GT(cluster.error_count("ASK"), 0) << "the source never sent the client on";
    EXPECT_EQ(cluster.error_count("MOVED"), 0) << "an ASK changed the map, for the other key too";
    expect_served_without_values(client, bare, "on the source", 2);
    cluster.move_keys(m, {main_server_key(bare)});
    expect_served_without_values(client, bare, "on the target", 3);
    EXPECT_EQ(client.zaddval(bare, 4, "valued", "value v"), KV_SUCCESS);

    // The second key's two server keys split between the nodes: the source answers TRYAGAIN until the call's bound,
    // or until the slot settles. A key made while the slot is open is made on the target at once.
    cluster.move_keys(m, {main_server_key(stays)});
    const double bound_s = KvClient::kCallBound_s + 2;  // room for a loaded machine
    auto started = Clock::now();
    EXPECT_EQ(client.zaddval(stays, 5, "refused", "x"), KV_TRY_AGAIN);
    EXPECT_LT(seconds(Clock::now() - started), bound_s);
    EXPECT_EQ(client.zaddval(awaited, 2, "b", "value b"), KV_SUCCESS);
    std::future<void> settled = settle_in_a_second([&] {
        cluster.move_keys(m, {main_server_key(stays) + ":v"});
        cluster.close_migration(m);
    });
    EXPECT_EQ(client.zaddval(stays, 6, "e", "value e"), KV_SUCCESS);
    settled.get();
    cluster.reset_error_stats();
    expect_scored(client, moved, "c", 3, "value c");
    EXPECT_EQ(client.zscore(stays, "refused").status, KV_NO_SET_KEY) << "a call answered KV_TRY_AGAIN ran";
    expect_scored(client, stays, "e", 6, "value e");
    expect_scored(client, awaited, "b", 2, "value b");
    expect_scored(client, bare, "valued", 4, "value v");
    EXPECT_EQ(client.zrange_all(bare).items.size(), 4u);
    // At most one MOVED, which teaches the client the whole new map.
    EXPECT_LE(cluster.error_count("MOVED"), 1);
    EXPECT_EQ(cluster.error_count("ASK"), 0);

    // A slot nobody serves, so that every node answers CLUSTERDOWN, until its master claims it again.
    const int down = masters[1];
    const std::string& key = by_slot.at(6000).front();
    ASSERT_EQ(cluster.owner_of_slot(6000), down);
    for (int port : cluster.ports()) cluster.must(port, {"CLUSTER", "DELSLOTS", "6000"});
    started = Clock::now();
    EXPECT_EQ(client.zaddval(key, 1, "refused", "x"), KV_CLUSTER_DOWN);
    EXPECT_LT(seconds(Clock::now() - started), bound_s);
    settled = settle_in_a_second([&] { cluster.must(down, {"CLUSTER", "ADDSLOTS", "6000"}); });
    EXPECT_EQ(client.zaddval(key, 2, "b", "value b"), KV_SUCCESS);
    settled.get();
    cluster.wait_healthy();
    EXPECT_EQ(client.zrange_all(key).items.size(), 1u) << "a call answered KV_CLUSTER_DOWN ran";

    // The function library flushed on a master the client has used: loaded again.
    cluster.must(down, {"FUNCTION", "FLUSH"});
    EXPECT_EQ(client.zaddval(key, 3, "c", "value c"), KV_SUCCESS);

    // The master, without the library, becomes a replica. A client that maps the slot there but has not used it
    // is refused loading the library there (READONLY) and looks again; the client that has used it is sent on
    // (MOVED) once, and learns the whole new map, not that slot alone. Its read is a transaction of two commands,
    // each of which the replica sends on.
    cluster.must(down, {"FUNCTION", "FLUSH"});
    KvClient fresh;
    ASSERT_EQ(fresh.add_seed(masters[0]), KV_SUCCESS);
    cluster.manual_failover(cluster.replica_of(down));
    EXPECT_EQ(fresh.zaddval(key, 3, "c", "value c"), KV_ALREADY_EXISTS);
    expect_scored(fresh, key, "c", 3, "value c");
    cluster.reset_error_stats();
    expect_scored(client, key, "c", 3, "value c");
    EXPECT_EQ(client.zaddval(by_slot.at(7000).front(), 1, "a", "value a"), KV_SUCCESS);
    EXPECT_LE(cluster.error_count("MOVED"), 2);
}

}  // namespace
}  // namespace kelvane_test
