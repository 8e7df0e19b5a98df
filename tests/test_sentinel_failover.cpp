// test_sentinel_failover.cpp -- a master watched by three Sentinels, failing over. zset, unchanged, passes through
// a Sentinel on 127.0.0.1:12345 (the master's name in its environment), and again after SENTINEL FAILOVER, while a
// client made before the failover writes to the new master although the old one still answers as master. A workload
// goes on while the master is killed: calls resume on the promoted replica, every failure is one the interface
// documents, nothing acknowledged after the kill is lost and nothing that never ran is there. A client that knows one
// Sentinel learns the others, and follows a killed master past silent ones.
#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "fault_injector.h"
#include "redis_sentinel.h"
#include "workload.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

using std::chrono::milliseconds;

kv_server_options sentinel_options() {
    kv_server_options o = KV_SERVER_OPTIONS_INIT;
    o.sentinel_master = RedisSentinels::kName;
    return o;
}

// The score of member in kelvane key K on the node at port, "" when it is not there.
std::string stored_score(const RedisSentinels& group, int port, const std::string& key, const std::string& member) {
    return group.must(port, {"ZSCORE", main_server_key(key), member});
}

TEST(SentinelZset, PassesThroughASentinelAndAgainAfterSentinelFailover) {
    for (int port = kZsetPort; port <= kZsetPort + 5; ++port) {
        if (!in_private_network() && RedisServer::listening(port)) {
            GTEST_SKIP() << "port " << port << " is taken and there is no private network";
        }
    }
    RedisSentinels group({{12346, 12347, 12348}, {kZsetPort, 12349, 12350}, "", "", {}});
    group.wait_ready();
    const auto zset_passes = [](const char* when) {
        SCOPED_TRACE(when);
        ZsetRunOptions options;
        options.env = {std::string("KELVANE_SENTINEL_MASTER=") + RedisSentinels::kName};
        options.timeout_s = 60;
        const ZsetRun run = run_zset(options);
        EXPECT_EQ(run.exit_code, 0);
        EXPECT_EQ(parse_transcript(run.out).summary, summary_line(kCases, 0)) << run.out.substr(0, 2000);
    };
    zset_passes("before the failover");

    KvClient client;
    const kv_server_options options = sentinel_options();
    ASSERT_EQ(client.add_seed(kZsetPort, &options), KV_SUCCESS) << kv_last_error(client.get());
    ASSERT_EQ(client.zaddval("kept", 1, "before", "v"), KV_SUCCESS);
    const int old_master = group.master();
    const int new_master = group.failover();
    // The old master answers as master for some seconds yet, until the Sentinels turn it into a replica; the
    // client has heard the Sentinel announce the failover and writes to the new one.
    ASSERT_EQ(group.role(old_master), "master");
    EXPECT_EQ(client.zaddval("kept", 2, "after", "v"), KV_SUCCESS) << kv_last_error(client.get());
    EXPECT_EQ(stored_score(group, new_master, "kept", "after"), "2");
    EXPECT_EQ(stored_score(group, old_master, "kept", "after"), "");
    EXPECT_EQ(client.zscore("kept", "before").value, std::optional<std::string>("v"));

    // zset's time-to-live cases need keys that do not exist yet; functions stay loaded.
    group.must(new_master, {"FLUSHALL"});
    zset_passes("after the failover");
}

TEST(SentinelFailover, AWorkloadGoesOnWhileTheMasterIsKilled) {
    RedisSentinels group;
    group.wait_ready();
    std::vector<std::string> keys;
    for (int k = 0; k < 8; ++k) keys.push_back("w" + std::to_string(k));
    const kv_server_options options = sentinel_options();
    Workload workload(keys, group.sentinel_ports(), &options);
    workload.start(100);
    const int victim = group.master();
    // Paused first, so that a call has been sent and waits for its reply when the master dies: that call may have
    // run, so it answers the lost connection and is never sent again.
    group.must(victim, {"CLIENT", "PAUSE", "10000", "ALL"});
    std::this_thread::sleep_for(milliseconds(300));
    const Clock::time_point killing = Clock::now();
    group.kill(victim);
    // Whatever started after the process was gone cannot have been acknowledged by the dead master.
    const Clock::time_point killed = Clock::now();
    const int heir = group.wait_for_new_master(victim);
    const Clock::time_point switched = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    workload.stop();

    const Call *in_flight = nullptr, *resumed = nullptr;
    long long first_after_kill = -1;  // the first write that started after the kill
    std::map<int32_t, int> failed;
    double longest = 0;
    for (const auto& c : workload.calls()) {
        if (c.write && c.start > killed && first_after_kill < 0) first_after_kill = c.item;
        if (c.start < killing && c.end > killing) in_flight = &c;
        if (c.start > killed && c.status == KV_SUCCESS && resumed == nullptr) resumed = &c;
        if (c.status != KV_SUCCESS) ++failed[c.status];
        longest = std::max(longest, seconds(c.end - c.start));
    }
    ASSERT_NE(in_flight, nullptr) << "no call was waiting on the master when it died";
    EXPECT_EQ(in_flight->status, KV_CONNECTION_LOST);
    ASSERT_NE(resumed, nullptr) << "no call worked again";
    EXPECT_LT(seconds(resumed->end - killed), 30.0);
    // The figures docs/sentinel.md quotes.
    std::cout << "sentinel failover: " << workload.calls().size() << " calls, Sentinels named " << heir << " "
              << seconds(switched - killed) << " s after the kill, calls worked again after "
              << seconds(resumed->end - killed) << " s, longest call " << longest << " s; failed:";
    for (const auto& [status, count] : failed) std::cout << " " << kv_status_name(status) << " x" << count;
    std::cout << std::endl;

    // The documented failures of a failover, and reads of writes the dead master took with it; every call within
    // the client's bound, with room for a loaded machine (a hang would take far longer).
    const Check fine = [&](const Call& c) {
        const bool lost_read =
            !c.write && (c.status == KV_NOTFOUND || c.status == KV_NO_SET_KEY) && c.item < first_after_kill;
        const bool failover = c.status == KV_NO_MASTER || c.status == KV_CONNECTION_LOST || c.status == KV_TIMEOUT ||
                              c.status == KV_CONNECT_FAILED;
        const bool bounded = seconds(c.end - c.start) < KvClient::kCallBound_s + 3;
        return (c.status == KV_SUCCESS || failover || lost_read) && bounded;
    };
    KvClient after;
    ASSERT_EQ(after.add_seed(group.sentinel_ports().back(), &options), KV_SUCCESS);
    workload.expect(fine, [&](const Call& c) { return c.start > killed; }, after, "around the kill");
}

// The client is given one Sentinel and learns the others from it. The master dies, the Sentinels promote a
// replica, and then two of the three go silent (they accept connections and answer nothing), the one the client
// was given among them: the next call asks both silent ones first, for a share of its time each (the command
// timeout alone would let the two take all of it), then the one it learned, and works on the new master.
TEST(SentinelFailover, LearnedSentinelsLeadPastSilentOnesToTheNewMaster) {
    RedisSentinels group;
    group.wait_ready();
    const std::vector<int> sentinels = group.sentinel_ports();
    KvClient client;
    const kv_server_options options = sentinel_options();
    ASSERT_EQ(client.add_seed(sentinels[0], &options), KV_SUCCESS) << kv_last_error(client.get());
    ASSERT_EQ(client.zaddval("learned", 1, "before", "v"), KV_SUCCESS);

    const int victim = group.master();
    group.kill(victim);
    const int heir = group.wait_for_new_master(victim);
    group.freeze(sentinels[0]);
    group.freeze(sentinels[1]);
    EXPECT_EQ(client.zaddval("learned", 2, "after", "v"), KV_SUCCESS) << kv_last_error(client.get());
    EXPECT_EQ(stored_score(group, heir, "learned", "after"), "2");
}

}  // namespace
}  // namespace kelvane_test
