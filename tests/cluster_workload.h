// cluster_workload.h -- a thread with a kelvane client of its own that keeps writing and reading a set of keys
// while a test changes the cluster under it, and remembers every call: what it was, when, and what it answered.
// Every write adds a member of its own ("m<n>" with score n and a value naming n and the key), and every round
// adds 1 to the member "counter", so that afterwards the record says exactly which data must be in the store,
// which must not, and how many increments may have landed.
#ifndef KELVANE_TESTS_CLUSTER_WORKLOAD_H
#define KELVANE_TESTS_CLUSTER_WORKLOAD_H

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cluster_client.h"

namespace kelvane_test {

using Clock = std::chrono::steady_clock;

enum class CallKind { kWrite, kIncrement, kScore, kRange };

struct Call {
    CallKind kind = CallKind::kWrite;
    size_t key = 0;      // index into the workload's keys
    long long item = 0;  // the write's number; for kScore the number of the write it reads back
    int32_t status = -1;
    Clock::time_point start, end;
    std::string problem;  // a successful read that did not give what had been acknowledged
};

// "kv_zscore on key 3 (m179): KV_SUCCESS (0), <problem>", for failure messages.
std::string describe(const Call& call);

// The call certainly did not run: it never reached a node, or the cluster refused it before running it.
bool never_ran(int32_t status);
// The store took the write.
bool acknowledged(int32_t status);

class Workload {
public:
    // The client waits as zset's does: 1 s to connect, 2 s for a reply, 2 connection attempts. range_reads adds
    // a read of a whole set every few rounds that must hold every write acknowledged for that key so far.
    Workload(std::vector<std::string> keys, const std::vector<int>& seeds, bool range_reads);
    ~Workload();
    Workload(const Workload&) = delete;
    Workload& operator=(const Workload&) = delete;

    void start();
    void stop();
    size_t rounds() const { return rounds_.load(); }

    // Valid after stop().
    const std::vector<Call>& calls() const { return calls_; }
    const std::vector<std::string>& keys() const { return keys_; }
    const std::vector<int32_t>& seed_statuses() const { return seed_statuses_; }
    const Call* write_of(long long item) const;
    // Counts of statuses per kind of call, e.g. "kv_zaddval: KV_SUCCESS (0) x812 KV_TRY_AGAIN (109) x3".
    std::string summary() const;
    // The longest call, in seconds.
    double longest_call_s() const;

    // Reads every key back with reader and lists what disagrees with the record: an acknowledged write for which
    // must_survive(call) holds that is missing or changed, a write that never ran but is there, a member nobody
    // wrote, a counter outside what the acknowledged and uncertain increments allow.
    std::vector<std::string> verify(KvClient& reader, const std::function<bool(const Call&)>& must_survive) const;

    static std::string member(long long item) { return "m" + std::to_string(item); }
    std::string value(long long item, size_t key) const;
    static constexpr const char* kCounter = "counter";

private:
    void run();
    void check_read(Call& call, const KvClient::Scored& got, size_t key, long long item) const;
    void check_range(Call& call, const KvClient::Members& got, size_t key) const;

    std::vector<std::string> keys_;
    bool range_reads_;
    std::unique_ptr<KvClient> client_;
    std::vector<int32_t> seed_statuses_;
    std::vector<Call> calls_;
    std::vector<std::vector<long long>> acked_;  // per key, the acknowledged writes so far
    std::map<long long, size_t> write_index_;    // item -> its write in calls_
    std::atomic<bool> stopping_{false};
    std::atomic<size_t> rounds_{0};
    std::thread thread_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_CLUSTER_WORKLOAD_H
