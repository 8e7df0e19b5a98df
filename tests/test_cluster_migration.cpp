// test_cluster_migration.cpp -- a slot moved to another master and back, a few server keys per MIGRATE, while
// two workloads write and read kelvane keys of exactly that slot: one on keys that exist before the move, one on
// keys it creates while the slot is open. The calls may have to wait (TRYAGAIN while a key's two server keys are
// split between the nodes, ASK while they are on the target, MOVED once the move is done), but no call may fail
// otherwise, no acknowledged write may go missing or lose its value, and nothing refused may land.
#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <thread>

#include "cluster_keys.h"
#include "cluster_workload.h"
#include "redis_cluster.h"

namespace kelvane_test {
namespace {

using std::chrono::milliseconds;

// Writes that started after t and were acknowledged.
size_t successes_after(const Workload& w, Clock::time_point t) {
    size_t n = 0;
    for (const auto& c : w.calls()) n += c.start > t && c.kind == CallKind::kWrite && acknowledged(c.status);
    return n;
}

// Every call either worked or waited for the slot in vain; a read never disagrees with what was acknowledged. Not
// even KV_ALREADY_EXISTS is fine: every write adds a new member, so that status means a write was sent twice.
void expect_only_waits(const Workload& w, const std::string& name) {
    size_t shown = 0;
    for (const auto& c : w.calls()) {
        const bool fine = c.status == KV_SUCCESS || c.status == KV_TRY_AGAIN || c.status == KV_CLUSTER_DOWN;
        if ((!fine || !c.problem.empty()) && shown++ < 10) {
            ADD_FAILURE() << name << ": " << describe(c);
        }
    }
    EXPECT_EQ(shown, 0u) << name << " calls that failed otherwise than by waiting, or read wrong data";
}

TEST(Migration, SlotMovedAndBackUnderWorkloadsKeepsEveryAcknowledgedWrite) {
    RedisCluster cluster;
    int slot = -1;
    std::vector<std::string> keys = keys_sharing_a_slot(cluster, "migrating-", 8, &slot);
    const std::vector<std::string> late_keys(keys.begin() + 6, keys.end());
    keys.resize(6);
    const int source = cluster.owner_of_slot(slot);
    const int target = source == cluster.masters().front() ? cluster.masters().back() : cluster.masters().front();

    Workload early(keys, {source}, /*range_reads=*/true);
    ASSERT_EQ(early.seed_statuses(), std::vector<int32_t>{KV_SUCCESS});
    early.start();
    // Every key exists with values before the slot opens.
    const auto warm_deadline = Clock::now() + std::chrono::seconds(20);
    while (early.rounds() < 60 && Clock::now() < warm_deadline) std::this_thread::sleep_for(milliseconds(10));

    // The late workload's keys are created while the slot is open; its seed is the target, not yet the owner.
    std::unique_ptr<Workload> late;
    MigrationSteps steps;
    // Two server keys per kelvane key, made one after the other, come out of GETKEYSINSLOT side by side: an odd
    // batch moves every other key's pair apart.
    steps.batch = 3;
    steps.opened = [&] {
        if (!late) {
            late = std::make_unique<Workload>(late_keys, std::vector<int>{target}, false);
            late->start();
        }
        std::this_thread::sleep_for(milliseconds(300));
    };
    steps.batch_moved = [](const Migration&) { std::this_thread::sleep_for(milliseconds(100)); };
    steps.emptied = [] { std::this_thread::sleep_for(milliseconds(300)); };

    cluster.reset_error_stats();
    const Migration there = cluster.migrate_slot(slot, target, steps);
    const Clock::time_point moved_there = Clock::now();
    std::this_thread::sleep_for(milliseconds(500));
    const Migration back = cluster.migrate_slot(slot, source, steps);
    const Clock::time_point moved_back = Clock::now();
    std::this_thread::sleep_for(milliseconds(500));
    early.stop();
    ASSERT_TRUE(late) << "the slot never opened";
    late->stop();
    std::cout << "slot " << slot << " moved " << source << " -> " << target << " (" << there.moved
              << " server keys) and back (" << back.moved << ")\nearly workload, " << early.rounds()
              << " rounds:\n" << early.summary() << "late workload, " << late->rounds() << " rounds:\n"
              << late->summary() << "longest call " << std::max(early.longest_call_s(), late->longest_call_s())
              << " s\nthe nodes answered ASK x" << cluster.error_count("ASK") << ", TRYAGAIN x"
              << cluster.error_count("TRYAGAIN") << ", MOVED x" << cluster.error_count("MOVED") << "\n";
    EXPECT_GT(cluster.error_count("ASK"), 0) << "the workloads never met a half-moved slot";

    EXPECT_EQ(late->seed_statuses(), std::vector<int32_t>{KV_SUCCESS});
    expect_only_waits(early, "early workload");
    expect_only_waits(*late, "late workload");
    // Waiting must end: calls succeed after each move.
    EXPECT_GT(successes_after(early, moved_there), 0u);
    EXPECT_GT(successes_after(early, moved_back), 0u);
    EXPECT_GT(successes_after(*late, moved_back), 0u);

    KvClient reader;
    ASSERT_EQ(reader.add_seed(cluster.replicas().front()), KV_SUCCESS);
    const auto all = [](const Call&) { return true; };
    for (const auto& problem : early.verify(reader, all)) ADD_FAILURE() << "early workload: " << problem;
    for (const auto& problem : late->verify(reader, all)) ADD_FAILURE() << "late workload: " << problem;
    EXPECT_EQ(cluster.owner_of_slot(slot), source);
}

}  // namespace
}  // namespace kelvane_test
