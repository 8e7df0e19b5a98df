// The way to the server: no server, a dead port, restarts, crashes, a server that stops answering, and arguments
// refused before anything is sent.
#include <chrono>
#include <cmath>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using Transport = LibraryTest;
using Arguments = LibraryTest;
using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

bool transport_failure(int32_t status) {
    return status == KV_CONNECT_FAILED || status == KV_TIMEOUT || status == KV_CONNECTION_LOST;
}

uint32_t card(kv_client* client, int32_t expected_status) {
    uint32_t n = 9;
    EXPECT_EQ(kv_zcard(client, "k", 1, &n), expected_status);
    return n;
}

TEST_F(Transport, NoServerAndDeadPortFailFast) {
    kv_client* lone = kv_client_create(1, 1, mm_, 2);
    ASSERT_NE(lone, nullptr);
    int32_t ttl = 5;
    EXPECT_EQ(kv_zadd(lone, "k", 1, 1, "m", 1, 0), KV_NO_SERVER);
    EXPECT_EQ(kv_get_ttl(lone, "k", 1, &ttl), KV_NO_SERVER);
    EXPECT_EQ(ttl, 0);

    // Nothing listens on the port: a transport status without waiting, now and later.
    const auto start = Clock::now();
    EXPECT_EQ(kv_server_add(lone, "127.0.0.1", RedisServer::free_port(), nullptr), KV_CONNECT_FAILED);
    EXPECT_EQ(card(lone, KV_CONNECT_FAILED), 0u);
    EXPECT_EQ(kv_zadd(lone, "k", 1, 1, "m", 1, 0), KV_CONNECT_FAILED);
    EXPECT_LT(seconds_since(start), 3.0);
    // A second seed that answers serves the calls; the dead one stays registered and is passed over.
    EXPECT_EQ(kv_server_add(lone, "127.0.0.1", server_->port(), nullptr), KV_SUCCESS);
    EXPECT_EQ(kv_zadd(lone, "k", 1, 1, "m", 1, 0), KV_SUCCESS);
    EXPECT_EQ(card(lone, KV_SUCCESS), 1u);
    kv_client_destroy(lone);
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
    const auto start = Clock::now();
    EXPECT_TRUE(transport_failure(zadd("k", 4, "p")));
    uint32_t n = 9;
    EXPECT_TRUE(transport_failure(kv_zcard(client_, "k", 1, &n)) && n == 0);
    EXPECT_LT(seconds_since(start), 3.0);
    server_->start();
    EXPECT_EQ(zadd("k", 5, "q"), KV_SUCCESS);
    EXPECT_EQ(card(client_, KV_SUCCESS), 1u);
}

TEST_F(Transport, FrozenServerTimesOutAndIsServedAgainOnceThawed) {
    kv_client* quick = kv_client_create(1, 1, mm_, 1);
    ASSERT_NE(quick, nullptr);
    ASSERT_EQ(kv_server_add(quick, "127.0.0.1", server_->port(), nullptr), KV_SUCCESS);
    ASSERT_EQ(kv_zadd(quick, "k", 1, 1, "m", 1, 0), KV_SUCCESS);

    server_->freeze();
    auto start = Clock::now();
    EXPECT_EQ(card(quick, KV_TIMEOUT), 0u);
    EXPECT_LT(seconds_since(start), 3.0);
    // A client that connects to the frozen server is not held either.
    kv_client* late = kv_client_create(1, 1, mm_, 1);
    ASSERT_NE(late, nullptr);
    start = Clock::now();
    EXPECT_TRUE(transport_failure(kv_server_add(late, "127.0.0.1", server_->port(), nullptr)));
    EXPECT_LT(seconds_since(start), 3.0);
    server_->thaw();

    EXPECT_EQ(card(quick, KV_SUCCESS), 1u);
    EXPECT_EQ(card(late, KV_SUCCESS), 1u);
    kv_client_destroy(late);
    kv_client_destroy(quick);
}

TEST_F(Arguments, BadOnesAreRefusedWithoutACrashAndNothingReachesTheServer) {
    uint32_t n = 0;
    int32_t ttl = 0;
    double score = 0;
    char* value = nullptr;
    void** m = nullptr;
    size_t len = 0, count = 0, *ml = nullptr;
    const double nan = std::nan(""), scores[] = {1}, nan_scores[] = {nan};
    const char *members[] = {nullptr}, *named[] = {"m"};
    const size_t lens[] = {3}, one[] = {1};
    const std::vector<std::pair<const char*, int32_t>> calls = {
        // a null client
        {"server_add", kv_server_add(nullptr, "127.0.0.1", server_->port(), nullptr)},
        {"zadd", kv_zadd(nullptr, "k", 1, 1, "m", 1, 0)},
        {"zrange", kv_zrange(nullptr, "k", 1, 0, -1, &m, &count, &ml, ZSET_DEFAULT)},
        {"del", kv_del(nullptr, "k", 1)},
        // null bytes with a nonzero length: keys, members, values, suffixes
        {"null key", kv_zadd(client_, nullptr, 3, 1, "m", 1, 0)},
        {"null key ttl", kv_get_ttl(client_, nullptr, 3, &ttl)},
        {"null member", kv_sadd(client_, "k", 1, nullptr, 3, 0)},
        {"null value", kv_zaddval(client_, "k", 1, 1, "m", 1, nullptr, 3, 0)},
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
        // empty batches; limits on ranks, refused before any optional argument is read
        {"empty zmadd", kv_zmadd(client_, "k", 1, scores, named, 0, one, 0)},
        {"empty zmrem", kv_zmrem(client_, "k", 1, named, 0, one, &n)},
        {"rank range limit", kv_zrange(client_, "k", 1, 0, -1, &m, &count, &ml, ZSET_WITH_LIMIT, 0, 10)},
        {"rank limit", kv_zrank(client_, "k", 1, "m", 1, &n, ZSET_WITH_LIMIT | ZSET_WITH_VALUES)},
        // NaN, which the server cannot order
        {"nan zadd", kv_zaddval(client_, "k", 1, nan, "m", 1, "v", 1, 0)},
        {"nan batch", kv_zmadd(client_, "k", 1, nan_scores, named, 1, one, 0)},
        {"nan valmax", kv_zaddvalmax(client_, "k", 1, "m", 1, "v", 1, nan, 0)},
        {"nan dis score", kv_zadddis(client_, "k", 1, nan, "m", 1, 1, &value, 0)},
        {"nan dis drift", kv_zadddis(client_, "k", 1, 1, "m", 1, nan, &value, 0)},
        {"nan incr", kv_zincrby(client_, "k", 1, "m", 1, nan, &score, 0)},
        {"nan count", kv_zcount(client_, "k", 1, nan, 1, &n)},
        {"nan remrange", kv_zremrangebyscore(client_, "k", 1, 0, nan, &n)},
        {"nan range", kv_zrangebyscore(client_, "k", 1, nan, 1, &m, &count, &ml, ZSET_DEFAULT)},
    };
    for (const auto& [what, status] : calls) EXPECT_EQ(status, KV_INVALID_PARAMETER) << what;
    EXPECT_EQ(kv_client_create(1, 1, nullptr, 1), nullptr);
    EXPECT_EQ(redis({"DBSIZE"}), "0");
}

}  // namespace
}  // namespace kelvane_test
