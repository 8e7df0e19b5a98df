// test_cluster_workloads.cpp -- the cluster changed under workloads that keep writing and reading, on one cluster.
// A slot moved to another master and back, a few server keys per MIGRATE, while one workload uses keys of that
// slot made before the move and another makes keys of it while the slot is open: calls may wait (TRYAGAIN while a
// key's two server keys are split, ASK while they are on the target, MOVED once the move is done) but fail no
// other way, and every acknowledged write stays, with its value. Then a master killed (SIGKILL) in the middle of a
// workload over keys of every master: the calls on its keys resume on the promoted replica, every call keeps within
// its bound, and since replication is asynchronous only writes the dead master acknowledged may be lost.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "cluster_workload.h"
#include "redis_cluster.h"

namespace kelvane_test {
namespace {

using std::chrono::milliseconds;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

void expect_none(const std::vector<std::string>& problems, const std::string& what) {
    for (const auto& p : problems) ADD_FAILURE() << what << ": " << p;
}

bool acked_write_after(const Workload& w, Clock::time_point t) {
    for (const auto& c : w.calls()) {
        if (c.start > t && c.kind == CallKind::kWrite && c.status == KV_SUCCESS) return true;
    }
    return false;
}

TEST(Workloads, SlotMovedAndBackThenAMasterKilled) {
    RedisCluster cluster;
    const std::vector<int> masters = cluster.masters();
    const std::map<int, std::vector<std::string>> by_slot = keys_by_slot(cluster, {"w", "x"});

    auto group = by_slot.begin();
    while (group->second.size() < 8) ++group;
    const int slot = group->first, source = cluster.owner_of_slot(slot);
    const int target = source == masters.back() ? masters.front() : masters.back();
    const std::vector<std::string>& in_slot = group->second;
    Workload early({in_slot.begin(), in_slot.begin() + 6}, {source});
    // The late workload's keys are made while the slot is open; its seed is the target, not yet the owner.
    Workload late({in_slot.begin() + 6, in_slot.begin() + 8}, {target});
    early.start();
    early.wait_rounds(60);
    cluster.reset_error_stats();
    std::vector<Clock::time_point> moved;
    for (int to : {target, source}) {
        const Migration m = cluster.open_migration(slot, to);
        if (to == target) late.start();
        std::this_thread::sleep_for(milliseconds(300));
        // A kelvane key's two server keys, made one after the other, come out of GETKEYSINSLOT side by side: an
        // odd batch moves every other key's pair apart.
        while (cluster.move_batch(m, 3) > 0) std::this_thread::sleep_for(milliseconds(100));
        std::this_thread::sleep_for(milliseconds(300));
        cluster.close_migration(m);
        moved.push_back(Clock::now());
        std::this_thread::sleep_for(milliseconds(500));
    }
    early.stop();
    late.stop();
    EXPECT_GT(cluster.error_count("ASK"), 0) << "the workloads never met a half-moved slot";
    // Not even KV_ALREADY_EXISTS: every write adds a new member, so that status means a write ran twice.
    const auto waited = [](const Call& c) {
        return c.status == KV_SUCCESS || c.status == KV_TRY_AGAIN || c.status == KV_CLUSTER_DOWN;
    };
    expect_none(early.bad_calls(waited), "early workload");
    expect_none(late.bad_calls(waited), "late workload");
    EXPECT_TRUE(acked_write_after(early, moved[0]) && acked_write_after(early, moved[1]) &&
                acked_write_after(late, moved[1]))
        << "waiting for the slot did not end";
    KvClient reader;
    ASSERT_EQ(reader.add_seed(cluster.replica_of(masters[1])), KV_SUCCESS);
    const auto all = [](const Call&) { return true; };
    expect_none(early.verify(reader, all), "early workload");
    expect_none(late.verify(reader, all), "late workload");
    ASSERT_EQ(cluster.owner_of_slot(slot), source);

    // Keys of every master; the master of slot 100 dies. The first seed is that master, the second a replica
    // elsewhere that stays up.
    std::vector<std::string> keys;
    std::set<size_t> victim_keys;
    const int victim = cluster.owner_of_slot(100), heir = cluster.replica_of(victim);
    for (int s = 100; s < 16384; s += 547) {
        if (cluster.owner_of_slot(s) == victim) victim_keys.insert(keys.size());
        keys.push_back(by_slot.at(s).front());
    }
    Workload workload(keys, {victim, cluster.replica_of(victim == masters[0] ? masters[1] : masters[0])});
    workload.start();
    workload.wait_rounds(100);
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
        if (c.kind == CallKind::kWrite && c.start > killed && first_after_kill < 0) first_after_kill = c.item;
        if (!victim_keys.count(c.key)) continue;
        if (c.start < killing && c.end > killing) in_flight = &c;
        if (c.start > killed && c.status == KV_SUCCESS && resumed == nullptr) resumed = &c;
    }
    ASSERT_NE(in_flight, nullptr) << "no call was waiting on the master when it died";
    EXPECT_EQ(in_flight->status, KV_CONNECTION_LOST) << describe(*in_flight);
    ASSERT_NE(resumed, nullptr) << "no call on the dead master's keys worked again";
    EXPECT_LT(seconds(resumed->end - killed), 20.0);

    // Transport and cluster failures only, plus reads of writes the dead master took with it; every call within
    // the client's bound of 4 s, with room for a loaded machine (a hang would take far longer).
    expect_none(workload.bad_calls([&](const Call& c) {
        const bool lost_read = c.kind == CallKind::kScore && (c.status == KV_NOTFOUND || c.status == KV_NO_SET_KEY) &&
                               victim_keys.count(c.key) && c.item < first_after_kill;
        const bool failed = c.status == KV_CONNECT_FAILED || c.status == KV_TIMEOUT ||
                            c.status == KV_CONNECTION_LOST || c.status == KV_CLUSTER_DOWN || c.status == KV_TRY_AGAIN;
        return (c.status == KV_SUCCESS || failed || lost_read) && seconds(c.end - c.start) < 7;
    }), "around the kill");
    KvClient after;
    ASSERT_EQ(after.add_seed(heir), KV_SUCCESS);
    expect_none(workload.verify(after, [&](const Call& c) { return !victim_keys.count(c.key) || c.start > killed; }),
                "after the kill");
}

}  // namespace
}  // namespace kelvane_test
