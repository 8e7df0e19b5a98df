// test_cluster_workloads.cpp -- the cluster changed under workloads that keep writing and reading, on one cluster.
// A slot moved to another master and back, a few server keys per MIGRATE, under a workload on keys of that slot:
// calls may wait (TRYAGAIN, ASK, MOVED) but fail no other way, and every acknowledged write stays, with its value. Then a master killed (SIGKILL) under a workload over every master: calls on its keys
// resume on the promoted replica, every call keeps within its bound, and only writes the dead master acknowledged
// may be lost (replication is asynchronous).
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "redis_cluster.h"
#include "workload.h"

namespace kelvane_test {
namespace {

using std::chrono::milliseconds;

TEST(Workloads, SlotMovedAndBackThenAMasterKilled) {
    RedisCluster cluster;
    const std::vector<int> masters = cluster.masters();
    const std::map<int, std::vector<std::string>> by_slot = keys_by_slot(cluster, {"w", "x"});

    auto group = by_slot.begin();
    while (group->second.size() < 6) ++group;
    const int slot = group->first, source = cluster.owner_of_slot(slot);
    const int target = source == masters.back() ? masters.front() : masters.back();
    Workload moving(group->second, {source});
    moving.start(60);
    cluster.reset_error_stats();
    for (int to : {target, source}) {
        const Migration m = cluster.open_migration(slot, to);
        std::this_thread::sleep_for(milliseconds(300));
        // A kelvane key's two server keys, made one after the other, come out of GETKEYSINSLOT side by side: an
        // odd batch moves every other key's pair apart.
        while (cluster.move_batch(m, 3) > 0) std::this_thread::sleep_for(milliseconds(100));
        std::this_thread::sleep_for(milliseconds(300));
        cluster.close_migration(m);
        std::this_thread::sleep_for(milliseconds(500));
    }
    moving.stop();
    EXPECT_GT(cluster.error_count("ASK"), 0) << "the workload never met a half-moved slot";
    // Not even KV_ALREADY_EXISTS: every write adds a new member, so that status means a write ran twice.
    const Check waited = [](const Call& c) {
        return c.status == KV_SUCCESS || c.status == KV_TRY_AGAIN || c.status == KV_CLUSTER_DOWN;
    };
    KvClient reader;
    ASSERT_EQ(reader.add_seed(cluster.replica_of(masters[1])), KV_SUCCESS);
    moving.expect(waited, [](const Call&) { return true; }, reader, "slot moved");
    // Waiting ends: the last call, half a second after the slot came back, worked.
    EXPECT_EQ(moving.calls().back().status, KV_SUCCESS);

    // Keys of every master; the master of slot 100 dies. It is the client's one seed, so once it is gone only the
    // nodes the map names can tell the client where its slots went.
    std::vector<std::string> keys;
    std::set<size_t> victim_keys;
    const int victim = cluster.owner_of_slot(100), heir = cluster.replica_of(victim);
    for (int s = 100; s < 16384; s += 547) {
        if (cluster.owner_of_slot(s) == victim) victim_keys.insert(keys.size());
        keys.push_back(by_slot.at(s).front());
    }
    Workload workload(keys, {victim});
    workload.start(100);
    // Paused first, so that a call on its keys has been sent and waits for a reply when the master dies: that
    // call may have run, so it answers the lost connection and is never sent again.
    cluster.must(victim, {"CLIENT", "PAUSE", "10000", "ALL"});
    std::this_thread::sleep_for(milliseconds(300));
    const Clock::time_point killing = Clock::now();
    cluster.kill(victim);
    // Whatever started after the process was gone cannot have been acknowledged by the dead master.
    const Clock::time_point killed = Clock::now();
    cluster.wait_healthy(60);
    ASSERT_EQ(cluster.owner_of_slot(100), heir);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    workload.stop();

    const Call *in_flight = nullptr, *resumed = nullptr;
    long long first_after_kill = -1;  // the first write that started after the kill
    for (const auto& c : workload.calls()) {
        if (c.write && c.start > killed && first_after_kill < 0) first_after_kill = c.item;
        if (!victim_keys.count(c.key)) continue;
        if (c.start < killing && c.end > killing) in_flight = &c;
        if (c.start > killed && c.status == KV_SUCCESS && resumed == nullptr) resumed = &c;
    }
    ASSERT_NE(in_flight, nullptr) << "no call was waiting on the master when it died";
    EXPECT_EQ(in_flight->status, KV_CONNECTION_LOST);
    ASSERT_NE(resumed, nullptr) << "no call on the dead master's keys worked again";
    EXPECT_LT(seconds(resumed->end - killed), 20.0);

    // Transport and cluster failures only, plus reads of writes the dead master took with it; every call within
    // the client's bound, with room for a loaded machine (a hang would take far longer).
    const Check fine = [&](const Call& c) {
        const bool lost_read = !c.write && (c.status == KV_NOTFOUND || c.status == KV_NO_SET_KEY) &&
                               victim_keys.count(c.key) && c.item < first_after_kill;
        const bool failed = c.status == KV_CONNECT_FAILED || c.status == KV_TIMEOUT ||
                            c.status == KV_CONNECTION_LOST || c.status == KV_CLUSTER_DOWN || c.status == KV_TRY_AGAIN;
        const bool bounded = seconds(c.end - c.start) < KvClient::kCallBound_s + 3;
        return (c.status == KV_SUCCESS || failed || lost_read) && bounded;
    };
    KvClient after;
    ASSERT_EQ(after.add_seed(heir), KV_SUCCESS);
    workload.expect(fine, [&](const Call& c) { return !victim_keys.count(c.key) || c.start > killed; }, after,
                    "around the kill");
}

}  // namespace
}  // namespace kelvane_test
