// test_threads.cpp -- one client shared by many threads at once: every thread gets its own answers over the one
// connection the client keeps to a node, through a server killed while sixteen threads are mid-call (each call
// within its bound), a server that stops answering for longer than a call waits (the late calls time out, their
// replies are thrown away when they come, and the connection stays in step), and a cluster that moves a slot and
// fails a master over under them, and over TLS, whose sessions one thread at a time may use. Each thread reads
// values only it wrote, so an answer handed to the wrong thread
// shows. Label `threads`, also run under ThreadSanitizer (build-tsan/).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "redis_cluster.h"
#include "redis_server.h"
#include "tls_certificates.h"
#include "workload.h"

namespace kelvane_test {
namespace {

using namespace std::chrono_literals;

constexpr int kMembers = 10;

std::string thread_key(int t) { return "thread " + std::to_string(t); }
std::string value_of(int t, int m) { return "value " + std::to_string(m) + " of thread " + std::to_string(t); }

bool transport_failure(int32_t status) {
    return status == KV_CONNECT_FAILED || status == KV_TIMEOUT || status == KV_CONNECTION_LOST;
}

// One call as a thread saw it.
struct Seen {
    int32_t status;
    bool right;  // a success that gave what this thread wrote
    Clock::time_point start, end;
};

// Threads that each write kMembers members with values of their own into a key of their own through one shared
// client, then keep reading them back at random until stopped, recording every call.
class Readers {
public:
    Readers(KvClient& client, int threads) : client_(client), seen_(static_cast<size_t>(threads)) {
        for (int t = 0; t < threads; ++t) {
            threads_.emplace_back([this, t] { run(t); });
        }
        // Until every thread has written its members (or a bounded wait is over).
        const auto until = Clock::now() + 20s;
        while (written_ < threads && Clock::now() < until) std::this_thread::sleep_for(5ms);
        EXPECT_EQ(written_.load(), threads) << "not every thread could write its members";
    }
    ~Readers() { stop(); }

    void stop() {
        stopping_ = true;
        for (auto& t : threads_) {
            if (t.joinable()) t.join();
        }
    }
    // Once stopped.
    const std::vector<std::vector<Seen>>& seen() const { return seen_; }

private:
    void run(int t) {
        for (int m = 0; m < kMembers; ++m) {
            EXPECT_TRUE(acknowledged(client_.zaddval(thread_key(t), m, "m" + std::to_string(m), value_of(t, m))));
        }
        ++written_;
        std::mt19937 rng(static_cast<unsigned>(t));
        std::vector<Seen>& mine = seen_[static_cast<size_t>(t)];
        mine.reserve(100000);
        while (!stopping_) {
            const int m = static_cast<int>(rng() % kMembers);
            const Clock::time_point start = Clock::now();
            const KvClient::Scored got = client_.zscore(thread_key(t), "m" + std::to_string(m));
            const bool right = got.status == KV_SUCCESS && got.score == m && got.value == value_of(t, m);
            mine.push_back(Seen{got.status, right, start, Clock::now()});
        }
    }

    KvClient& client_;
    std::vector<std::vector<Seen>> seen_;
    std::vector<std::thread> threads_;
    std::atomic<int> written_{0};
    std::atomic<bool> stopping_{false};
};

// The connections the server has from clients other than the one that asks (CLIENT LIST), by id.
std::set<std::string> client_connections(const RedisServer& server) {
    std::istringstream lines(server.command({"CLIENT", "LIST"}));
    std::set<std::string> ids;
    std::string line;
    while (std::getline(lines, line)) {
        if (line.find("cmd=client|list") != std::string::npos || line.find("id=") != 0) continue;
        ids.insert(line.substr(3, line.find(' ') - 3));
    }
    return ids;
}

TEST(Threads, SixteenThreadsShareOneConnectionAndAKilledServerEndsEveryCallWithinItsBound) {
    RedisServer server;
    KvClient client(1, 1, 1);  // a call's bound: 1 x 1 s + 1 s
    constexpr double kBound_s = 2;
    ASSERT_EQ(client.add_seed(server.port()), KV_SUCCESS);
    Readers readers(client, 16);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(client_connections(server).size(), 1u) << "one connection per node, whatever the threads";

    const Clock::time_point killed = Clock::now();
    server.kill();
    std::this_thread::sleep_for(1500ms);
    server.start();
    const Clock::time_point restarted = Clock::now();
    std::this_thread::sleep_for(1500ms);
    readers.stop();

    for (size_t t = 0; t < readers.seen().size(); ++t) {
        long right_before = 0, answered_after = 0, other = 0;
        std::string others;
        for (const Seen& s : readers.seen()[t]) {
            // A hang-safety bound: the call's own, and a moment for the test's threads to be scheduled.
            EXPECT_LT(seconds(s.end - s.start), kBound_s + 0.5) << "thread " << t << ": status " << s.status;
            if (s.status == KV_SUCCESS && !s.right) ADD_FAILURE() << "thread " << t << " got another's answer";
            if (s.right && s.end < killed) ++right_before;
            // The new server holds nothing: its answers are KV_NOTFOUND.
            if (s.status == KV_NOTFOUND && s.start > restarted) ++answered_after;
            const bool odd = (s.status != KV_SUCCESS && s.status != KV_NOTFOUND && !transport_failure(s.status)) ||
                             (s.status == KV_NOTFOUND && s.end < killed);
            if (odd && other++ < 4) others += std::string(" ") + kv_status_name(s.status);
        }
        EXPECT_GT(right_before, 0) << "thread " << t;
        EXPECT_GT(answered_after, 0) << "thread " << t << " never got an answer from the restarted server";
        EXPECT_EQ(other, 0) << "thread " << t << ": statuses that are neither answers nor transport failures:" << others;
    }
    EXPECT_EQ(client_connections(server).size(), 1u);
}

TEST(Threads, LateRepliesTimeOutAndAreDiscardedWhileTheConnectionStaysInStep) {
    RedisServer server;
    KvClient client(1, 1, 1);
    ASSERT_EQ(client.add_seed(server.port()), KV_SUCCESS);
    Readers readers(client, 8);
    std::this_thread::sleep_for(200ms);
    const std::set<std::string> before = client_connections(server);
    ASSERT_EQ(before.size(), 1u);

    const Clock::time_point frozen = Clock::now();
    server.freeze();
    std::this_thread::sleep_for(1500ms);
    server.thaw();
    const Clock::time_point thawed = Clock::now();
    std::this_thread::sleep_for(700ms);
    readers.stop();

    long timeouts = 0;
    for (size_t t = 0; t < readers.seen().size(); ++t) {
        long right_after = 0;
        for (const Seen& s : readers.seen()[t]) {
            EXPECT_TRUE(s.right || s.status == KV_TIMEOUT) << "thread " << t << ": status " << s.status;
            if (s.status == KV_TIMEOUT) {
                ++timeouts;
                EXPECT_GT(s.end, frozen) << "thread " << t << " timed out before the server stopped";
            }
            if (s.right && s.start > thawed) ++right_after;
        }
        EXPECT_GT(right_after, 0) << "thread " << t << " got no answer once the server went on";
    }
    EXPECT_GT(timeouts, 0) << "no call waited past its deadline";
    // The replies of the calls that gave up were read and thrown away: the connection is the one from before.
    EXPECT_EQ(client_connections(server), before);
}

// Over TLS the threads' reads and writes meet in one OpenSSL session: every answer still reaches its own thread.
TEST(Threads, SixteenThreadsShareOneTlsConnection) {
    const TestCertificates certs;
    const CertPair pair = certs.server();
    ServerOptions tls;
    tls.tls_cert = pair.cert;
    tls.tls_key = pair.key;
    tls.tls_ca = certs.ca();
    RedisServer server(0, tls);
    const std::string ca = certs.ca();
    kv_server_options options = KV_SERVER_OPTIONS_INIT;
    options.tls_mode = KV_TLS_VERIFY_FULL;
    options.tls_ca_file = ca.c_str();
    KvClient client;
    ASSERT_EQ(client.add_seed(server.port(), &options), KV_SUCCESS) << kv_last_error(client.get());
    Readers readers(client, 16);
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(client_connections(server).size(), 1u);
    readers.stop();
    for (size_t t = 0; t < readers.seen().size(); ++t) {
        long right = 0;
        for (const Seen& s : readers.seen()[t]) {
            EXPECT_TRUE(s.right) << "thread " << t << ": status " << s.status;
            right += s.right ? 1 : 0;
        }
        EXPECT_GT(right, 0) << "thread " << t;
    }
}

// Eight threads on one client, each a workload of its own keys: four on a slot that moves to another master and
// back, four on keys of every master, one of which fails over to its replica. Nothing acknowledged is lost,
// nothing runs twice, and no thread reads another's data.
TEST(ThreadsCluster, ThreadsSharingAClientFollowASlotMoveAndAFailover) {
    RedisCluster cluster;
    const std::vector<int> masters = cluster.masters();
    const std::map<int, std::vector<std::string>> by_slot = keys_by_slot(cluster, {"w"});
    auto group = by_slot.begin();
    while (group->second.size() < 4) ++group;
    const int slot = group->first, source = cluster.owner_of_slot(slot);
    const int target = source == masters.back() ? masters.front() : masters.back();

    KvClient shared;
    ASSERT_EQ(shared.add_seed(masters[0]), KV_SUCCESS);
    std::vector<std::unique_ptr<Workload>> workloads;
    for (size_t i = 0; i < 4; ++i) {
        workloads.push_back(std::make_unique<Workload>(std::vector<std::string>{group->second[i]}, shared));
    }
    for (int w = 0; w < 4; ++w) {
        std::vector<std::string> keys;
        for (int s = 200 + w; s < 16384; s += 1201) keys.push_back(by_slot.at(s).front());
        workloads.push_back(std::make_unique<Workload>(keys, shared));
    }
    for (auto& w : workloads) w->start(20);
    cluster.reset_error_stats();
    for (int to : {target, source}) {
        const Migration m = cluster.open_migration(slot, to);
        std::this_thread::sleep_for(200ms);
        while (cluster.move_batch(m, 3) > 0) std::this_thread::sleep_for(100ms);
        std::this_thread::sleep_for(200ms);
        cluster.close_migration(m);
        std::this_thread::sleep_for(300ms);
    }
    cluster.manual_failover(cluster.replica_of(masters[1]));
    std::this_thread::sleep_for(1s);
    for (auto& w : workloads) w->stop();
    EXPECT_GT(cluster.error_count("ASK") + cluster.error_count("MOVED"), 0) << "no thread was redirected";

    // A manual failover loses nothing, so every acknowledged write must be there; calls may have waited, or met
    // the old master's connection going away.
    const Check fine = [](const Call& c) {
        return c.status == KV_SUCCESS || c.status == KV_TRY_AGAIN || c.status == KV_CLUSTER_DOWN ||
               c.status == KV_TIMEOUT || c.status == KV_CONNECTION_LOST;
    };
    KvClient reader;
    ASSERT_EQ(reader.add_seed(cluster.masters().front()), KV_SUCCESS);
    for (size_t i = 0; i < workloads.size(); ++i) {
        workloads[i]->expect(fine, [](const Call&) { return true; }, reader, "workload " + std::to_string(i));
        EXPECT_EQ(workloads[i]->calls().back().status, KV_SUCCESS) << "workload " << i;
    }
}

}  // namespace
}  // namespace kelvane_test
