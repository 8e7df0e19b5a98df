// test_cluster_workloads.cpp -- the cluster changed under workloads that keep writing and reading, on one cluster.
// A slot moved to another master and back, a few server keys per MIGRATE, under a workload on keys of that slot:
// calls may wait (TRYAGAIN, ASK, MOVED) but fail no other way, and every acknowledged write stays, with its value. Then a master killed (SIGKILL) under a workload over every master: calls on its keys
// resume on the promoted replica, every call keeps within its bound, and only writes the dead master acknowledged
// may be lost (replication is asynchronous).
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <thread>

#include "redis_cluster.h"

namespace kelvane_test {
namespace {

using std::chrono::milliseconds;

std::string member(long long item) { return "m" + std::to_string(item); }

// What the write of item put into key: its score and value.
std::pair<double, std::optional<std::string>> written(long long item, size_t key) {
    return {static_cast<double>(item), "value of " + member(item) + " in key " + std::to_string(key)};
}

bool acknowledged(int32_t status) { return status == KV_SUCCESS || status == KV_ALREADY_EXISTS; }

// The call certainly did not run: it never reached a node, or the cluster refused it before running it.
bool never_ran(int32_t status) {
    return status == KV_NO_SERVER || status == KV_CONNECT_FAILED || status == KV_CLUSTER_DOWN ||
           status == KV_TRY_AGAIN;
}

struct Call {
    bool write;      // kv_zaddval, or else kv_zscore of the key's last acknowledged write
    size_t key;      // index into the workload's keys
    long long item;  // the number of the write made or read
    int32_t status;
    Clock::time_point start, end;
    std::string problem;  // a successful read that did not give what had been acknowledged
};

using Check = std::function<bool(const Call&)>;

// A thread with a client of its own that keeps writing and reading its keys, and records every call. Each write
// adds a member of its own ("m<n>" with score n and a value naming n and the key), so that the record says which
// data must be in the store and which must not.
class Workload {
public:
    Workload(std::vector<std::string> keys, const std::vector<int>& seeds) : keys_(std::move(keys)) {
        for (int port : seeds) EXPECT_EQ(client_.add_seed(port), KV_SUCCESS) << "seed " << port;
    }
    ~Workload() { stop(); }

    void start(size_t warm_rounds) {
        thread_ = std::thread([this] { run(); });
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (rounds_ < warm_rounds && Clock::now() < deadline) std::this_thread::sleep_for(milliseconds(10));
    }
    void stop() {
        stopping_ = true;
        if (thread_.joinable()) thread_.join();
    }
    const std::vector<Call>& calls() const { return calls_; }  // once stopped

    // Every call fine(), and every read giving what had been acknowledged. Then the store read back: every
    // acknowledged write for which must_survive(write) holds, with its score and value; no write that never ran,
    // and nothing nobody wrote.
    void expect(const Check& fine, const Check& must_survive, KvClient& reader, const std::string& what) const {
        size_t shown = 0;
        for (const auto& c : calls_) {
            if ((fine(c) && c.problem.empty()) || shown++ >= 10) continue;
            ADD_FAILURE() << what << ": " << (c.write ? "kv_zaddval" : "kv_zscore") << " on key " << c.key << " ("
                          << member(c.item) << "): status " << c.status << " " << c.problem;
        }
        for (size_t key = 0; key < keys_.size(); ++key) {
            const std::string where = what + ", key " + std::to_string(key) + ": ";
            KvClient::Members stored = reader.zrange_all(keys_[key]);
            ASSERT_TRUE(stored.status == KV_SUCCESS || stored.status == KV_NOTFOUND) << where << stored.status;
            for (const auto& c : calls_) {
                if (c.key != key || !c.write) continue;
                const auto it = stored.items.find(member(c.item));
                const bool there = it != stored.items.end();
                EXPECT_FALSE(acknowledged(c.status) && must_survive(c) && !there) << where << member(c.item) << " lost";
                EXPECT_FALSE(never_ran(c.status) && there) << where << member(c.item) << " after " << c.status;
                if (!there) continue;
                EXPECT_EQ(it->second, written(c.item, key)) << where << member(c.item);
                stored.items.erase(it);
            }
            for (const auto& item : stored.items) ADD_FAILURE() << where << "nobody wrote " << item.first;
        }
    }

private:
    void run() {
        std::vector<long long> last_acked(keys_.size(), -1);
        for (long long item = 0; !stopping_; ++item, ++rounds_) {
            const size_t key = static_cast<size_t>(item) % keys_.size();
            const auto [score, value] = written(item, key);
            calls_.push_back(Call{true, key, item, -1, Clock::now(), {}, {}});
            calls_.back().status = client_.zaddval(keys_[key], score, member(item), *value);
            calls_.back().end = Clock::now();
            if (acknowledged(calls_.back().status)) last_acked[key] = item;
            if (const long long read = last_acked[key]; read >= 0) {
                calls_.push_back(Call{false, key, read, -1, Clock::now(), {}, {}});
                const KvClient::Scored got = client_.zscore(keys_[key], member(read));
                calls_.back().end = Clock::now();
                calls_.back().status = got.status;
                if (got.status == KV_SUCCESS && std::make_pair(got.score, got.value) != written(read, key)) {
                    calls_.back().problem = "read " + std::to_string(got.score) + " " + got.value.value_or("-");
                }
            }
            // Leaves the two shared cores to the nodes and to the test's own thread most of the time.
            std::this_thread::sleep_for(milliseconds(2));
        }
    }

    std::vector<std::string> keys_;
    KvClient client_;
    std::vector<Call> calls_;
    std::atomic<bool> stopping_{false};
    std::atomic<size_t> rounds_{0};
    std::thread thread_;
};

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
