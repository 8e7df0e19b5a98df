// One deadline per call: through a relay that trickles the server's replies a byte at a time, or holds them back,
// every call returns within connect_attempts x connect_timeout + command_timeout seconds (4 s for the client
// below), whatever state the connection is in; once replies flow again, calls work again.
#include <chrono>

#include "library_fixture.h"
#include "slow_relay.h"

namespace kelvane_test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// kv_client_create(1, 2, mm, 2): 2 attempts x 1 s + 2 s, and a margin for a loaded machine.
constexpr double kBound = 4.0 + 1.5;
// Slower than nothing, faster than any per-read timeout: the line never falls silent.
constexpr auto kTrickle = 1500ms;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

bool transport_failure(int32_t status) {
    return status == KV_CONNECT_FAILED || status == KV_TIMEOUT || status == KV_CONNECTION_LOST;
}

class Deadline : public LibraryTest {
protected:
    // A client like zset's whose server is the relay.
    kv_client* client_through(const SlowRelay& relay, int32_t* add_status) {
        kv_client* c = kv_client_create(1, 2, mm_, 2);
        EXPECT_NE(c, nullptr);
        *add_status = kv_server_add(c, "127.0.0.1", relay.port(), nullptr);
        return c;
    }

    // Runs call, expects it back within the bound, and returns its status.
    template <class Call>
    int32_t within_bound(const char* what, Call call) {
        const auto start = Clock::now();
        const int32_t status = call();
        const double took = seconds_since(start);
        EXPECT_LT(took, kBound) << what << " took " << took << " s and answered " << status;
        return status;
    }

    // The member written before the relay slowed down, read through c.
    void served(kv_client* c) {
        double score = 0;
        char* value = nullptr;
        size_t len = 0;
        ASSERT_EQ(kv_zscore(c, "k", 1, "m", 1, &score, &value, &len), KV_SUCCESS);
        EXPECT_EQ(score, 1.5);
        EXPECT_EQ(std::string(value, len), "v");
        mm_->release(value);
    }
};

TEST_F(Deadline, TrickledRepliesEndEachCallInTime) {
    SlowRelay relay(server_->port());
    int32_t added = -1;
    // The fixture's helpers read through client_: from here on it talks to the server through the relay.
    kv_client_destroy(client_);
    client_ = client_through(relay, &added);
    ASSERT_EQ(added, KV_SUCCESS);
    ASSERT_EQ(zaddval("k", 1.5, "m", "v"), KV_SUCCESS);

    // Each call starts on a working connection; only its own reply trickles.
    const auto slowly = [&](const char* what, auto call) {
        uint32_t n = 0;
        relay.pass();
        ASSERT_EQ(kv_zcard(client_, "k", 1, &n), KV_SUCCESS) << "before " << what;
        relay.trickle(kTrickle);
        EXPECT_EQ(within_bound(what, call), KV_TIMEOUT) << what;
    };
    slowly("zscore", [&] {
        const Scored s = score_of("k", "m");  // also checks that a failure clears every out-parameter
        return s.status;
    });
    slowly("zrange", [&] { return range("k", 0, -1).status; });
    slowly("zaddval", [&] { return zaddval("k", 2.5, "n", "w"); });

    relay.pass();
    served(client_);
}

TEST_F(Deadline, SilentOrTricklingServerAtConnectTime) {
    SlowRelay relay(server_->port());
    ASSERT_EQ(zaddval("k", 1.5, "m", "v"), KV_SUCCESS);

    // The relay accepts, but neither the handshake nor the first call hears back.
    relay.hold();
    int32_t added = -1;
    kv_client* silent = nullptr;
    within_bound("kv_server_add, held", [&] {
        silent = client_through(relay, &added);
        return added;
    });
    EXPECT_TRUE(transport_failure(added)) << added;
    uint32_t n = 9;
    const int32_t first = within_bound("first call, held", [&] { return kv_zcard(silent, "k", 1, &n); });
    EXPECT_TRUE(transport_failure(first)) << first;
    EXPECT_EQ(n, 0u);

    // The handshake's answer trickles in.
    relay.trickle(kTrickle);
    kv_client* trickled = nullptr;
    within_bound("kv_server_add, trickled", [&] {
        trickled = client_through(relay, &added);
        return added;
    });
    EXPECT_TRUE(transport_failure(added)) << added;

    relay.pass();
    served(silent);
    served(trickled);
    kv_client_destroy(trickled);
    kv_client_destroy(silent);
}

}  // namespace
}  // namespace kelvane_test
