// test_cluster_routing.cpp -- what routing must do that the big runs may not show: one client that keeps working
// while a slot is half moved (ASK) and after it moved (MOVED, then a refreshed map) or failed over; a slot in the
// middle of a move (TRYAGAIN) is waited for until the call's bound; a cluster that is down answers within that
// bound and the same client works again once it is back; a dead first seed is passed over.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "cluster_client.h"
#include "cluster_keys.h"
#include "redis_cluster.h"
#include "redis_server.h"

namespace kelvane_test {
namespace {

bool transport(int32_t status) {
    return status == KV_CONNECT_FAILED || status == KV_TIMEOUT || status == KV_CONNECTION_LOST;
}

// A key of each master's, in the order of cluster.masters().
std::vector<std::string> key_per_master(const RedisCluster& cluster, const std::string& prefix) {
    const std::vector<int> masters = cluster.masters();
    std::vector<std::string> out(masters.size());
    for (int n = 0; std::find(out.begin(), out.end(), "") != out.end(); ++n) {
        const std::string key = prefix + std::to_string(n);
        const int owner = cluster.owner_of_slot(cluster.key_slot(main_server_key(key)));
        const size_t i = static_cast<size_t>(std::find(masters.begin(), masters.end(), owner) - masters.begin());
        if (out[i].empty()) out[i] = key;
    }
    return out;
}

void expect_scored(KvClient& client, const std::string& key, const std::string& member, double score,
                   const std::string& value) {
    const KvClient::Scored got = client.zscore(key, member);
    EXPECT_EQ(got.status, KV_SUCCESS) << key << " " << member << ": " << status_name(got.status);
    EXPECT_EQ(got.score, score) << key << " " << member;
    EXPECT_EQ(got.value, value) << key << " " << member;
}

TEST(Routing, AskWhileASlotMovesThenMovedRefreshesTheMap) {
    RedisCluster cluster;
    int slot = -1;
    const std::vector<std::string> keys = keys_sharing_a_slot(cluster, "routed-", 2, &slot);
    const std::string &moved = keys[0], &stays = keys[1];
    const int source = cluster.owner_of_slot(slot);
    const int target = source == cluster.masters().front() ? cluster.masters().back() : cluster.masters().front();
    KvClient client;
    ASSERT_EQ(client.add_seed(source), KV_SUCCESS);
    ASSERT_EQ(client.zaddval(moved, 1, "a", "value a"), KV_SUCCESS);
    ASSERT_EQ(client.zaddval(stays, 2, "b", "value b"), KV_SUCCESS);

    // Half way: one key's server keys on the target, the other's still on the source.
    Migration m = cluster.open_migration(slot, target);
    cluster.move_keys(m, {main_server_key(moved), main_server_key(moved) + ":v"});
    cluster.reset_error_stats();
    expect_scored(client, moved, "a", 1, "value a");
    EXPECT_EQ(client.zaddval(moved, 3, "c", "value c"), KV_SUCCESS);
    expect_scored(client, stays, "b", 2, "value b");
    EXPECT_EQ(client.zaddval(stays, 4, "d", "value d"), KV_SUCCESS);
    EXPECT_GT(cluster.error_count(source, "ASK"), 0) << "the source never sent the client on";
    // ASK is for one call: the slot's other key is still asked for at the source, never at the target.
    EXPECT_EQ(cluster.error_count("MOVED"), 0);

    cluster.move_keys(m, {main_server_key(stays), main_server_key(stays) + ":v"});
    cluster.close_migration(m);
    cluster.reset_error_stats();
    expect_scored(client, stays, "d", 4, "value d");
    expect_scored(client, moved, "c", 3, "value c");
    EXPECT_EQ(client.zaddval(moved, 5, "e", "value e"), KV_SUCCESS);
    EXPECT_EQ(client.zaddval(stays, 6, "f", "value f"), KV_SUCCESS);
    const KvClient::Members first = client.zrange_all(moved), second = client.zrange_all(stays);
    EXPECT_EQ(first.items.size(), 3u);
    EXPECT_EQ(second.items.size(), 3u);
    // The first call met the old owner; after it the client knew where the slot had gone.
    EXPECT_LE(cluster.error_count("MOVED"), 1);
    EXPECT_EQ(cluster.error_count("ASK"), 0);
}

TEST(Routing, TryAgainIsRetriedUntilTheSlotSettlesOrTheBound) {
    RedisCluster cluster;
    int slot = -1;
    const std::vector<std::string> keys = keys_sharing_a_slot(cluster, "pending-", 2, &slot);
    const std::string &abandoned = keys[0], &awaited = keys[1];
    const int source = cluster.owner_of_slot(slot);
    const int target = source == cluster.masters().front() ? cluster.masters().back() : cluster.masters().front();
    KvClient client;
    ASSERT_EQ(client.add_seed(source), KV_SUCCESS);

    // A key made while its slot is open: the source sends the call on (ASK) and the target cannot make two keys
    // it does not hold yet (TRYAGAIN) until the slot is its own.
    Migration m = cluster.open_migration(slot, target);
    const double bound_s = client.call_bound_s() + 2;  // room for a loaded machine
    using Clock = std::chrono::steady_clock;
    const auto started = Clock::now();
    EXPECT_EQ(client.zaddval(abandoned, 1, "a", "value a"), KV_TRY_AGAIN);
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - started).count(), bound_s);

    // The slot settles a second into the next call, well within its bound: the call waits and lands.
    std::string closing_failed;
    std::thread closer([&] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        try {
            cluster.close_migration(m);
        } catch (const std::exception& e) {
            closing_failed = e.what();
        }
    });
    EXPECT_EQ(client.zaddval(awaited, 2, "b", "value b"), KV_SUCCESS);
    closer.join();
    ASSERT_EQ(closing_failed, "");
    expect_scored(client, awaited, "b", 2, "value b");
    EXPECT_EQ(client.zscore(abandoned, "a").status, KV_NOTFOUND) << "a call answered KV_TRY_AGAIN ran";
}

TEST(Routing, SameClientAfterAManualFailover) {
    RedisCluster cluster;
    const int master = cluster.masters().front();
    const std::string key = key_per_master(cluster, "failed-over-").front();
    KvClient client;
    ASSERT_EQ(client.add_seed(master), KV_SUCCESS);
    ASSERT_EQ(client.zaddval(key, 1, "a", "value a"), KV_SUCCESS);

    // The client's connection to the old master stays open; that node now serves the slot no more.
    cluster.manual_failover(cluster.replica_of(master));
    expect_scored(client, key, "a", 1, "value a");
    EXPECT_EQ(client.zaddval(key, 2, "b", "value b"), KV_SUCCESS);
    cluster.reset_error_stats();
    expect_scored(client, key, "b", 2, "value b");
    EXPECT_EQ(client.zaddval(key, 3, "c", "value c"), KV_SUCCESS);
    EXPECT_EQ(cluster.error_count("MOVED"), 0) << "the map was not refreshed after the failover";
    EXPECT_EQ(client.zrange_all(key).items.size(), 3u);
}

TEST(Routing, ClusterDownAnswersWithinTheCallBoundAndComesBack) {
    RedisCluster cluster;
    const std::vector<std::string> keys = key_per_master(cluster, "down-");
    const std::string &gone = keys[0], &kept = keys[1];
    const int dead = cluster.masters()[0], dead_replica = cluster.replica_of(dead);
    // One connect attempt of 1 s and 1 s for a reply: no call may take much more than 2 s.
    KvClient client(1, 1, 1);
    ASSERT_EQ(client.add_seed(cluster.masters()[1]), KV_SUCCESS);
    ASSERT_EQ(client.zaddval(gone, 1, "a", "value a"), KV_SUCCESS);
    ASSERT_EQ(client.zaddval(kept, 1, "a", "value a"), KV_SUCCESS);

    // A master and its replica gone: a third of the slots has no one to serve it, so no node serves any.
    cluster.kill(dead_replica);
    cluster.kill(dead);
    cluster.wait_state("fail");
    const double bound_s = client.call_bound_s() + 2;  // room for a loaded machine
    using Clock = std::chrono::steady_clock;
    auto started = Clock::now();
    EXPECT_EQ(client.zaddval(kept, 2, "refused", "x"), KV_CLUSTER_DOWN);
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - started).count(), bound_s);
    started = Clock::now();
    EXPECT_EQ(client.zscore(kept, "a").status, KV_CLUSTER_DOWN);
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - started).count(), bound_s);
    started = Clock::now();
    const int32_t on_dead = client.zaddval(gone, 2, "refused", "x");
    EXPECT_TRUE(on_dead == KV_CLUSTER_DOWN || transport(on_dead)) << status_name(on_dead);
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - started).count(), bound_s);

    // Back, empty (no persistence): the same client works again, and the refused write never landed.
    cluster.restart(dead_replica);
    cluster.restart(dead);
    cluster.wait_healthy(60);
    const KvClient::Members stored = client.zrange_all(kept);
    EXPECT_EQ(stored.status, KV_SUCCESS);
    EXPECT_EQ(stored.items.size(), 1u);
    EXPECT_EQ(client.zscore(gone, "a").status, KV_NOTFOUND);
    EXPECT_EQ(client.zaddval(gone, 3, "b", "value b"), KV_SUCCESS);
    expect_scored(client, gone, "b", 3, "value b");
}

TEST(Routing, DeadFirstSeedIsPassedOver) {
    RedisCluster cluster;
    KvClient client;
    const int32_t dead_seed = client.add_seed(RedisServer::free_port());
    EXPECT_TRUE(transport(dead_seed)) << status_name(dead_seed);
    const int live = cluster.replicas().front();
    EXPECT_EQ(client.add_seed(live), KV_SUCCESS);
    EXPECT_EQ(client.add_seed(live), KV_ALREADY_EXISTS);
    for (const auto& key : key_per_master(cluster, "seeded-")) {
        EXPECT_EQ(client.zaddval(key, 7, "m", "value"), KV_SUCCESS) << key;
        expect_scored(client, key, "m", 7, "value");
    }
}

}  // namespace
}  // namespace kelvane_test
