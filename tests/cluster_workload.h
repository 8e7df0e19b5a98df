// cluster_workload.h -- kelvane clients for the cluster tests. KvClient: one client with its own memory manager,
// results taken apart into owned data (every buffer released at once), and every buffer back when it goes.
// Workload: a thread with a client of its own that keeps writing and reading a set of keys while a test changes
// the cluster under it, and records every call. Every write adds a member of its own ("m<n>" with score n and a
// value naming n and the key), so that afterwards the record says which data must be in the store and which must
// not; every read asks for the last write acknowledged on its key.
#ifndef KELVANE_TESTS_CLUSTER_WORKLOAD_H
#define KELVANE_TESTS_CLUSTER_WORKLOAD_H

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kelvane.h"

namespace kelvane_test {

using Clock = std::chrono::steady_clock;

class KvClient {
public:
    KvClient(int32_t connect_timeout_s = 1, int32_t command_timeout_s = 2, int32_t connect_attempts = 2);
    ~KvClient();
    KvClient(const KvClient&) = delete;
    KvClient& operator=(const KvClient&) = delete;

    int32_t add_seed(int port) { return kv_server_add(client_, "127.0.0.1", static_cast<uint32_t>(port), nullptr); }
    // The most any one call may take: connect attempts x connect timeout + command timeout.
    double call_bound_s() const { return bound_s_; }

    int32_t zaddval(const std::string& key, double score, const std::string& member, const std::string& value);
    struct Scored {
        int32_t status = -1;
        double score = 0;
        std::optional<std::string> value;
    };
    Scored zscore(const std::string& key, const std::string& member);
    // A whole sorted set: member -> (score, value).
    struct Members {
        int32_t status = -1;
        std::map<std::string, std::pair<double, std::optional<std::string>>> items;
    };
    Members zrange_all(const std::string& key);

private:
    double bound_s_;
    kv_mm* mm_;
    kv_client* client_;
};

enum class CallKind { kWrite, kScore };

struct Call {
    CallKind kind;
    size_t key;      // index into the workload's keys
    long long item;  // the write's number; for kScore that of the write it reads back
    int32_t status;
    Clock::time_point start, end;
    std::string problem;  // a successful read that did not give what had been acknowledged
};

// "kv_zscore on key 3 (m179): status 0, <problem>", for failure messages.
std::string describe(const Call& call);

class Workload {
public:
    // The client waits as zset's does: 1 s to connect, 2 s for a reply, 2 connection attempts; every seed must be
    // taken.
    Workload(std::vector<std::string> keys, const std::vector<int>& seeds);
    ~Workload() { stop(); }

    void start() { thread_ = std::thread([this] { run(); }); }
    // Until this many rounds have run (at most 20 s).
    void wait_rounds(size_t rounds) const;
    void stop();

    // Valid after stop().
    const std::vector<Call>& calls() const { return calls_; }
    // The calls for which fine() does not hold or that read wrong data, at most ten of them described.
    std::vector<std::string> bad_calls(const std::function<bool(const Call&)>& fine) const;
    // Reads every key back and lists what disagrees with the record: an acknowledged write for which
    // must_survive(write) holds that is missing, a write that never ran but is there, a score or value changed, a
    // member nobody wrote.
    std::vector<std::string> verify(KvClient& reader, const std::function<bool(const Call&)>& must_survive) const;

private:
    void run();

    std::vector<std::string> keys_;
    std::unique_ptr<KvClient> client_;
    std::vector<Call> calls_;
    std::atomic<bool> stopping_{false};
    std::atomic<size_t> rounds_{0};
    std::thread thread_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_CLUSTER_WORKLOAD_H
