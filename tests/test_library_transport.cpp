// The way to the server: no server, a dead port, restarts, crashes, a server
// that stops answering, and arguments refused before anything is sent.
#include <chrono>

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

TEST_F(Transport, NoServerAndDeadPortFailFast) {
    kv_client* lone = kv_client_create(1, 1, mm_, 2);
    ASSERT_NE(lone, nullptr);
    int32_t ttl = 5;
    EXPECT_EQ(kv_zadd(lone, "k", 1, 1, "m", 1, 0), KV_NO_SERVER);
    EXPECT_EQ(kv_get_ttl(lone, "k", 1, &ttl), KV_NO_SERVER);
    EXPECT_EQ(ttl, 0);

    // Nothing listens on the port: a transport status, quickly, now and later.
    const int port = RedisServer::free_port();
    auto start = Clock::now();
    EXPECT_EQ(kv_server_add(lone, "127.0.0.1", port, nullptr), KV_CONNECT_FAILED);
    EXPECT_LT(seconds_since(start), 3.0);
    start = Clock::now();
    uint32_t n = 9;
    EXPECT_EQ(kv_zcard(lone, "k", 1, &n), KV_CONNECT_FAILED);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(kv_zadd(lone, "k", 1, 1, "m", 1, 0), KV_CONNECT_FAILED);
    EXPECT_LT(seconds_since(start), 3.0);
    // The failed server stays registered.
    EXPECT_EQ(kv_server_add(lone, "127.0.0.1", server_->port(), nullptr), KV_ALREADY_EXISTS);
    kv_client_destroy(lone);

    EXPECT_EQ(kv_server_add(client_, "127.0.0.1", server_->port(), nullptr), KV_ALREADY_EXISTS);
}

TEST_F(Transport, RestartedOrKilledServerIsReconnected) {
    ASSERT_EQ(zadd("k", 1, "m"), KV_SUCCESS);
    // A restarted server has neither data nor functions; the very next call works.
    server_->stop();
    server_->start();
    EXPECT_EQ(zadd("k", 2, "n"), KV_SUCCESS);
    EXPECT_EQ(card("k"), 1u);
    // Functions flushed behind the client's back are loaded again.
    ASSERT_EQ(redis({"FUNCTION", "FLUSH"}), "OK");
    EXPECT_EQ(zadd("k", 3, "o"), KV_SUCCESS);
    EXPECT_EQ(card("k"), 2u);

    server_->kill();
    const auto start = Clock::now();
    EXPECT_TRUE(transport_failure(zadd("k", 4, "p")));
    uint32_t n = 9;
    EXPECT_TRUE(transport_failure(kv_zcard(client_, "k", 1, &n)));
    EXPECT_EQ(n, 0u);
    EXPECT_LT(seconds_since(start), 3.0);
    server_->start();
    EXPECT_EQ(zadd("k", 5, "q"), KV_SUCCESS);
    EXPECT_EQ(card("k"), 1u);
}

TEST_F(Transport, FrozenServerTimesOut) {
    kv_client* quick = kv_client_create(1, 1, mm_, 1);
    ASSERT_NE(quick, nullptr);
    ASSERT_EQ(kv_server_add(quick, "127.0.0.1", server_->port(), nullptr), KV_SUCCESS);
    ASSERT_EQ(kv_zadd(quick, "k", 1, 1, "m", 1, 0), KV_SUCCESS);

    server_->freeze();
    auto start = Clock::now();
    uint32_t n = 9;
    EXPECT_EQ(kv_zcard(quick, "k", 1, &n), KV_TIMEOUT);
    EXPECT_EQ(n, 0u);
    EXPECT_LT(seconds_since(start), 3.0);
    // A client that connects to the frozen server is not held either.
    kv_client* late = kv_client_create(1, 1, mm_, 1);
    ASSERT_NE(late, nullptr);
    start = Clock::now();
    EXPECT_TRUE(transport_failure(kv_server_add(late, "127.0.0.1", server_->port(), nullptr)));
    EXPECT_LT(seconds_since(start), 3.0);
    server_->thaw();

    EXPECT_EQ(kv_zcard(quick, "k", 1, &n), KV_SUCCESS);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(kv_zcard(late, "k", 1, &n), KV_SUCCESS);
    EXPECT_EQ(n, 1u);
    kv_client_destroy(late);
    kv_client_destroy(quick);
}

TEST_F(Arguments, BadOnesAreRefusedWithoutACrash) {
    uint32_t n = 0;
    int32_t ttl = 0;
    double score = 0;
    char* value = nullptr;
    size_t len = 0, count = 0;
    void** m = nullptr;
    size_t* ml = nullptr;
    const double scores[] = {1};
    const char* members[] = {nullptr};
    const size_t lens[] = {3};
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
        {"mrem out", kv_zmrem(client_, "k", 1, members, 1, lens, nullptr)},
        {"remrange out", kv_zremrangebyrank(client_, "k", 1, 0, -1, nullptr)},
        {"members out", kv_zrange(client_, "k", 1, 0, -1, nullptr, &count, &ml, ZSET_DEFAULT)},
        {"count out", kv_zrangebyscore(client_, "k", 1, 0, 1, &m, nullptr, &ml, ZSET_DEFAULT)},
        {"scores out", kv_zrange(client_, "k", 1, 0, -1, &m, &count, &ml, ZSET_WITH_SCORES, nullptr)},
    };
    for (const auto& [what, status] : calls) EXPECT_EQ(status, KV_INVALID_PARAMETER) << what;
    EXPECT_EQ(kv_client_create(1, 1, nullptr, 1), nullptr);
    EXPECT_EQ(redis({"DBSIZE"}), "0");  // nothing of that reached the server
}

}  // namespace
}  // namespace kelvane_test
