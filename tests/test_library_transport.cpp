// The way to the server: no server, a dead port, restarts, crashes, flushed functions, a server that stops
// answering or trickles its replies (one deadline per call, whatever the line does), and arguments refused before
// anything is sent.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <functional>
#include <thread>

#include "library_fixture.h"
#include "slow_relay.h"

namespace kelvane_test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Runs call, expects it back within bound seconds (a hang-safety bound, not a speed target), returns its status.
template <class Call>
int32_t within(double bound, Call call) {
    const auto start = Clock::now();
    const int32_t status = call();
    const double took = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_LT(took, bound) << "answered " << status;
    return status;
}

bool transport_failure(int32_t status) {
    return status == KV_CONNECT_FAILED || status == KV_TIMEOUT || status == KV_CONNECTION_LOST;
}

uint32_t card(kv_client* client, int32_t expected_status) {
    uint32_t n = 9;
    EXPECT_EQ(kv_zcard(client, "k", 1, &n), expected_status);
    return n;
}

using Transport = LibraryTest;
using Arguments = LibraryTest;

TEST_F(Transport, NoServerAndDeadPortFailFast) {
    kv_client* lone = kv_client_create(1, 1, mm_, 2);
    ASSERT_NE(lone, nullptr);
    clients_.push_back(lone);
    int32_t ttl = 5;
    EXPECT_EQ(kv_zadd(lone, "k", 1, 1, "m", 1, 0), KV_NO_SERVER);
    EXPECT_EQ(kv_get_ttl(lone, "k", 1, &ttl), KV_NO_SERVER);
    EXPECT_EQ(ttl, 0);

    // Nothing listens on the port: a transport status without waiting, now and later.
    EXPECT_EQ(within(3.0, [&] { return kv_server_add(lone, "127.0.0.1", RedisServer::free_port(), nullptr); }),
              KV_CONNECT_FAILED);
    EXPECT_EQ(within(3.0, [&] { return kv_zadd(lone, "k", 1, 1, "m", 1, 0); }), KV_CONNECT_FAILED);
    // A second seed, down when it is registered and up later, serves the calls: the first call after that looks
    // for a server past the dead seed, which stays registered and is passed over.
    server_->stop();
    EXPECT_EQ(kv_server_add(lone, "127.0.0.1", server_->port(), nullptr), KV_CONNECT_FAILED);
    server_->start();
    EXPECT_EQ(kv_zadd(lone, "k", 1, 1, "m", 1, 0), KV_SUCCESS);
    EXPECT_EQ(card(lone, KV_SUCCESS), 1u);
    EXPECT_EQ(kv_server_add(client_, "127.0.0.1", server_->port(), nullptr), KV_ALREADY_EXISTS);
}

TEST_F(Transport, RestartedKilledOrFlushedServerIsServedAgain) {
    ASSERT_EQ(zadd("k", 1, "m"), KV_SUCCESS);
    // A restarted server has neither data nor functions; the very next call works.
    server_->stop();
    server_->start();
    EXPECT_EQ(zadd("k", 2, "n"), KV_SUCCESS);
    EXPECT_EQ(card(client_, KV_SUCCESS), 1u);
    ASSERT_EQ(redis({"FUNCTION", "FLUSH"}), "OK");
    EXPECT_EQ(zadd("k", 3, "o"), KV_SUCCESS);
    EXPECT_EQ(card(client_, KV_SUCCESS), 2u);

    server_->kill();
    uint32_t n = 9;
    EXPECT_TRUE(transport_failure(within(3.0, [&] { return zadd("k", 4, "p"); })));
    EXPECT_TRUE(transport_failure(within(3.0, [&] { return kv_zcard(client_, "k", 1, &n); })) && n == 0);
    server_->start();
    EXPECT_EQ(zadd("k", 5, "q"), KV_SUCCESS);
    EXPECT_EQ(card(client_, KV_SUCCESS), 1u);
}

// A line that falls silent (a frozen server accepts connections and answers nothing) or trickles its replies
// (through the relay): every call, and the handshake of a client registered meanwhile, ends within
// connect_attempts x connect_timeout + command_timeout (4 s for 1, 2 and 2); once the line is back, calls work.
TEST_F(Transport, SilentOrTricklingLineEndsEachCallWithinItsOneDeadline) {
    constexpr double kBound = 4.0 + 1.5;  // a margin for a loaded machine
    ASSERT_EQ(zaddval("k", 1.5, "m", "v"), KV_SUCCESS);
    SlowRelay relay(server_->port());
    for (const bool frozen : {true, false}) {
        SCOPED_TRACE(frozen ? "frozen" : "trickling");
        const int port = frozen ? server_->port() : relay.port();
        const auto hold = [&](bool on) {
            if (!frozen) relay.trickle(on);
            else if (on) server_->freeze();
            else server_->thaw();
        };
        kv_client* c = another(port);
        const std::vector<std::pair<const char*, std::function<int32_t()>>> calls = {
            {"zscore", [&] { return zscore_status(c, "k", "m"); }},
            {"zaddval", [&] { return kv_zaddval(c, "k", 1, 2.5, "n", 1, "w", 1, 0); }}};
        for (const auto& [what, call] : calls) {
            hold(false);
            ASSERT_EQ(zscore_status(c, "k", "m"), KV_SUCCESS);  // a working connection: only what follows is held
            hold(true);
            EXPECT_EQ(within(kBound, call), KV_TIMEOUT) << what;
        }
        kv_client* late = nullptr;
        int32_t added = -1;
        within(kBound, [&] {
            late = another(port, &added);
            return added;
        });
        EXPECT_TRUE(transport_failure(added)) << added;
        hold(false);
        EXPECT_EQ(zscore_status(c, "k", "m"), KV_SUCCESS);
        EXPECT_EQ(zscore_status(late, "k", "m"), KV_SUCCESS);
    }
}

TEST_F(Arguments, BadOnesAreRefusedWithoutACrashAndNothingReachesTheServer) {
    uint32_t n = 0;
    double score = 0;
    char* value = nullptr;
    void** m = nullptr;
    size_t len = 0, count = 0, *ml = nullptr;
    const double nan = std::nan(""), scores[] = {1};
    const char *members[] = {nullptr}, *named[] = {"m"};
    const size_t lens[] = {3}, one[] = {1};
    const std::vector<std::pair<const char*, int32_t>> calls = {
        // a null client
        {"server_add", kv_server_add(nullptr, "127.0.0.1", server_->port(), nullptr)},
        {"zrange", kv_zrange(nullptr, "k", 1, 0, -1, &m, &count, &ml, ZSET_DEFAULT)},
        // null bytes with a nonzero length
        {"null member", kv_sadd(client_, "k", 1, nullptr, 3, 0)},
        {"null batch member", kv_zmadd(client_, "k", 1, scores, members, 1, lens, 0)},
        {"null removed member", kv_zrem(client_, "k", 1, nullptr, 3)},
        {"null suffix", kv_zrange_whole(client_, "k", 1, 0, -1, &m, &count, &ml, nullptr, 3, ZSET_DEFAULT)},
        // required out-parameters that are null
        {"ttl out", kv_get_ttl(client_, "k", 1, nullptr)},
        {"card out", kv_zcard(client_, "k", 1, nullptr)},
        {"score out", kv_zscore(client_, "k", 1, "m", 1, nullptr, &value, &len)},
        {"value out", kv_zscore(client_, "k", 1, "m", 1, &score, nullptr, &len)},
        {"rank out", kv_zrank(client_, "k", 1, "m", 1, nullptr, ZSET_DEFAULT)},
        {"rank value out", kv_zrank(client_, "k", 1, "m", 1, &n, ZSET_WITH_VALUES, nullptr, &len)},
        {"incr out", kv_zincrby(client_, "k", 1, "m", 1, 1, nullptr, 0)},
        {"kept out", kv_zadddis(client_, "k", 1, 1, "m", 1, 5, nullptr, 0)},
        {"mrem out", kv_zmrem(client_, "k", 1, named, 1, one, nullptr)},
        {"remrange out", kv_zremrangebyrank(client_, "k", 1, 0, -1, nullptr)},
        {"members out", kv_zrange(client_, "k", 1, 0, -1, nullptr, &count, &ml, ZSET_DEFAULT)},
        {"count out", kv_zrangebyscore(client_, "k", 1, 0, 1, &m, nullptr, &ml, ZSET_DEFAULT)},
        {"scores out", kv_zrange(client_, "k", 1, 0, -1, &m, &count, &ml, ZSET_WITH_SCORES, nullptr)},
        // NaN, which the server cannot order
        {"nan zadd", kv_zadd(client_, "k", 1, nan, "m", 1, 0)},
        {"nan valmax", kv_zaddvalmax(client_, "k", 1, "m", 1, "v", 1, nan, 0)},
        {"nan dis score", kv_zadddis(client_, "k", 1, nan, "m", 1, 1, &value, 0)},
    };
    for (const auto& [what, status] : calls) EXPECT_EQ(status, KV_INVALID_PARAMETER) << what;
    EXPECT_EQ(kv_client_create(1, 1, nullptr, 1), nullptr);
    EXPECT_EQ(voidtostring(nullptr, 3, mm_), nullptr);
    EXPECT_EQ(voidtostring("abc", 3, nullptr), nullptr);
    EXPECT_EQ(redis({"DBSIZE"}), "0");
}

}  // namespace
}  // namespace kelvane_test
