// workload.h -- a thread that keeps writing and reading keys through a client of its own while a test changes the
// store under it (a slot moved, a master killed, a failover), and records every call: which data must be in the
// store afterwards, and which must not.
#ifndef KELVANE_TESTS_WORKLOAD_H
#define KELVANE_TESTS_WORKLOAD_H

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "redis_cluster.h"

namespace kelvane_test {

inline std::string member(long long item) { return "m" + std::to_string(item); }

// What the write of item put into key: its score and value.
inline std::pair<double, std::optional<std::string>> written(long long item, size_t key) {
    return {static_cast<double>(item), "value of " + member(item) + " in key " + std::to_string(key)};
}

inline bool acknowledged(int32_t status) { return status == KV_SUCCESS || status == KV_ALREADY_EXISTS; }

// The call certainly did not run: it never reached a node, the cluster refused it before running it, or no master
// was known to run it.
inline bool never_ran(int32_t status) {
    return status == KV_NO_SERVER || status == KV_CONNECT_FAILED || status == KV_CLUSTER_DOWN ||
           status == KV_TRY_AGAIN || status == KV_NO_MASTER;
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

// A thread with a client of its own (or one it shares with other workloads, each on keys of its own) that keeps
// writing and reading its keys, and records every call. Each write
// adds a member of its own ("m<n>" with score n and a value naming n and the key), so that the record says which
// data must be in the store and which must not.
class Workload {
public:
    // Registers every seed, with options (a Sentinel's master, say) when given.
    Workload(std::vector<std::string> keys, const std::vector<int>& seeds, const kv_server_options* options = nullptr)
        : keys_(std::move(keys)), own_(std::make_unique<KvClient>()), client_(*own_) {
        for (int port : seeds) EXPECT_EQ(client_.add_seed(port, options), KV_SUCCESS) << "seed " << port;
    }
    // On a client that other threads use at the same time.
    Workload(std::vector<std::string> keys, KvClient& shared) : keys_(std::move(keys)), client_(shared) {}
    ~Workload() { stop(); }

    void start(size_t warm_rounds) {
        thread_ = std::thread([this] { run(); });
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (rounds_ < warm_rounds && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
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
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    std::vector<std::string> keys_;
    std::unique_ptr<KvClient> own_;
    KvClient& client_;
    std::vector<Call> calls_;
    std::atomic<bool> stopping_{false};
    std::atomic<size_t> rounds_{0};
    std::thread thread_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_WORKLOAD_H
