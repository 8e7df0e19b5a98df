// test_cluster_slot_map.cpp -- how far the client trusts what nodes tell it, in steps on one cluster: a stranger (a
// cluster-enabled node that serves no slot) registered before the cluster's nodes, then frozen and registered first;
// a frozen master and the bound of the calls on its keys; a master restarted with a new identity, which the
// cluster lists without an address until its replica takes over.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "redis_cluster.h"

namespace kelvane_test {
namespace {

bool listed_without_address_everywhere(const RedisCluster& cluster) {
    for (int port : cluster.ports()) {
        if (!cluster.lists_master_without_address(port)) return false;
    }
    return true;
}

TEST(SlotMap, StrangersFrozenNodesAndAMasterWithoutAddress) {
    RedisCluster cluster;
    const std::vector<int> masters = cluster.masters();
    const std::map<int, std::vector<std::string>> by_slot = keys_by_slot(cluster, {"s"});
    std::vector<std::string> keys;  // one of each master's
    for (int slot : {0, 5461, 10923}) keys.push_back(by_slot.at(slot).front());

    // A stranger first, then a node of the cluster: the stranger's empty map is no map, and the cluster's is taken.
    const int stranger = cluster.start_stranger();
    KvClient client;
    EXPECT_EQ(client.add_seed(stranger), KV_CLUSTER_DOWN);
    ASSERT_EQ(client.add_seed(masters[0]), KV_SUCCESS);
    for (const auto& key : keys) {
        ASSERT_EQ(client.zaddval(key, 1, "a", "value a"), KV_SUCCESS);
        expect_scored(client, key, "a", 1, "value a");
    }

    // The stranger frozen: it accepts connections and answers nothing. Registered first, it costs its own
    // registration the command timeout (2 s), and the next seed nothing.
    cluster.freeze(stranger);
    {
        KvClient late;
        EXPECT_EQ(late.add_seed(stranger), KV_TIMEOUT);
        const Clock::time_point started = Clock::now();
        ASSERT_EQ(late.add_seed(masters[1]), KV_SUCCESS);
        EXPECT_LT(seconds(Clock::now() - started), 1.0) << "the second seed waited for the silent first";
        expect_scored(late, keys[0], "a", 1, "value a");
    }
    cluster.thaw(stranger);

    // A master frozen, its replica kept from taking over. The call on its connection gives up when the command
    // timeout (2 s) runs out, and so does the next: the connection stays open, the first call's reply to be thrown
    // away when it comes, and the second waits behind it. Each within a few milliseconds: the kernel's socket
    // timeouts alone overran by up to a few tens.
    const int frozen = masters[2], frozen_replica = cluster.replica_of(frozen);
    cluster.must(frozen_replica, {"CONFIG", "SET", "cluster-replica-no-failover", "yes"});
    cluster.freeze(frozen);
    for (const double bound_s : {2.0, 2.0}) {
        const Clock::time_point started = Clock::now();
        EXPECT_EQ(client.zscore(keys[2], "a").status, KV_TIMEOUT);
        const double took_s = seconds(Clock::now() - started);
        EXPECT_GE(took_s, bound_s);
        EXPECT_LT(took_s, bound_s + 0.010) << "past the bound";
    }
    cluster.thaw(frozen);
    cluster.must(frozen_replica, {"CONFIG", "SET", "cluster-replica-no-failover", "no"});
    cluster.wait_healthy();

    // A master killed and started again at its address with a new identity before the cluster noticed: the other
    // nodes list its slots with no address ("" and port 0) until its replica takes over, which it is kept from
    // doing for now; they go on serving their own slots (full coverage is not required).
    const int restarted = masters[0], heir = cluster.replica_of(restarted);
    for (int port : cluster.ports()) cluster.must(port, {"CONFIG", "SET", "cluster-require-full-coverage", "no"});
    cluster.must(heir, {"CONFIG", "SET", "cluster-replica-no-failover", "yes"});
    cluster.restart_as_stranger(restarted);
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
    while (!listed_without_address_everywhere(cluster)) {
        ASSERT_LT(Clock::now(), deadline) << "the cluster never listed the restarted master without an address";
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    // A new client takes the map and serves the other masters' keys; the restarted master's slots are not served
    // by anyone (and not sent to the node the map was asked of).
    KvClient fresh;
    ASSERT_EQ(fresh.add_seed(masters[1]), KV_SUCCESS);
    expect_scored(fresh, keys[1], "a", 1, "value a");
    expect_scored(fresh, keys[2], "a", 1, "value a");
    EXPECT_EQ(fresh.zscore(keys[0], "a").status, KV_CLUSTER_DOWN);
    expect_scored(client, keys[1], "a", 1, "value a");
    // Once the replica has taken over, a refresh knows better. (The key is gone: the replica copied the empty
    // node at its master's address.)
    cluster.must(heir, {"CLUSTER", "FAILOVER", "FORCE"});
    cluster.wait_healthy();
    ASSERT_EQ(fresh.zaddval(keys[0], 2, "b", "value b"), KV_SUCCESS);
    expect_scored(client, keys[0], "b", 2, "value b");
}

}  // namespace
}  // namespace kelvane_test
