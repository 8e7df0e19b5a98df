// Settings at their extremes and the bound of one call, against a real server that runs, freezes or is gone; and an
// expiry that another client set further off than an int32_t of seconds holds.
#include <chrono>
#include <climits>
#include <string>
#include <vector>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using Bounds = LibraryTest;
using Clock = std::chrono::steady_clock;

// Runs call and gives its status and the seconds it took.
template <class Call>
std::pair<int32_t, double> timed(Call call) {
    const auto start = Clock::now();
    const int32_t status = call();
    return {status, std::chrono::duration<double>(Clock::now() - start).count()};
}

bool transport_failure(int32_t status) {
    return status == KV_CONNECT_FAILED || status == KV_TIMEOUT || status == KV_CONNECTION_LOST;
}

// Timeouts of 68 years and two billion attempts, or a billion-second connect timeout ten times over: the bound
// saturates instead of overflowing, so calls work; a frozen server costs the command timeout; a stopped one
// refuses, and no call waits for it, however many attempts it may make.
TEST_F(Bounds, ExtremeSettingsWorkAndEveryCallIsBounded) {
    kv_client* longest = another(server_->port(), nullptr, nullptr, INT32_MAX, INT32_MAX, INT32_MAX);
    kv_client* patient = another(server_->port(), nullptr, nullptr, 1000000000, 1, 10);
    EXPECT_EQ(kv_zadd(longest, "k", 1, 1, "m", 1, 0), KV_SUCCESS);
    EXPECT_EQ(zscore_status(patient, "k", "m"), KV_SUCCESS);

    server_->freeze();
    const auto [frozen, waited] = timed([&] { return zscore_status(patient, "k", "m"); });
    server_->thaw();
    EXPECT_EQ(frozen, KV_TIMEOUT);
    EXPECT_LT(waited, 3.0);  // a hang-safety bound: the command timeout is 1 s

    server_->stop();
    for (kv_client* c : {longest, patient}) {
        const auto [status, took] = timed([&] { return zscore_status(c, "k", "m"); });
        EXPECT_TRUE(transport_failure(status)) << status;
        EXPECT_LT(took, 3.0);
    }
    server_->start();
    EXPECT_EQ(kv_zadd(longest, "k", 1, 2, "n", 1, 0), KV_SUCCESS);
    EXPECT_EQ(zscore_status(patient, "k", "n"), KV_SUCCESS);
}

// The bound of a call (1 × 1 s + 1 s here) runs from the moment the call is entered: a batch of a million members
// takes a while to check and write out, and that time counts.
TEST_F(Bounds, ACallsBoundRunsFromItsEntryNotFromItsSend) {
    kv_client* c = another(server_->port(), nullptr, nullptr, 1, 1, 1);
    uint32_t n = 0;
    ASSERT_EQ(kv_zcard(c, "big", 3, &n), KV_SUCCESS);  // connected, functions checked

    constexpr uint32_t kMembers = 1000000;
    std::vector<std::string> names(kMembers);
    std::vector<const char*> members(kMembers);
    std::vector<size_t> lens(kMembers);
    std::vector<double> scores(kMembers);
    for (uint32_t i = 0; i < kMembers; ++i) {
        names[i] = "a member of a large batch, number " + std::to_string(i);
        members[i] = names[i].data(), lens[i] = names[i].size(), scores[i] = i;
    }
    server_->freeze();
    const auto [status, took] = timed([&] {
        return kv_zmadd(c, "big", 3, scores.data(), members.data(), kMembers, lens.data(), 0);
    });
    server_->thaw();
    EXPECT_TRUE(transport_failure(status)) << status;
    EXPECT_LT(took, 2.0 + 0.15);  // its bound, and a little for a busy machine to wake the call
}

// PTTL of a key that another client gave 4e9 seconds reads as INT32_MAX seconds, not as a wrapped negative.
TEST_F(Bounds, AnExpiryBeyondWhatInt32HoldsReadsAsTheMostItHolds) {
    ASSERT_EQ(zadd("far", 1, "m"), KV_SUCCESS);
    ASSERT_EQ(redis({"EXPIRE", "kv{far}", "4000000000"}), "1");
    EXPECT_EQ(ttl("far"), INT32_MAX);
    ASSERT_EQ(redis({"PEXPIRE", "kv{far}", "2147483647001"}), "1");  // rounds up to 2^31 seconds
    EXPECT_EQ(ttl("far"), INT32_MAX);
    // Rounds up to INT32_MAX itself, or one less once a millisecond has run.
    ASSERT_EQ(redis({"PEXPIRE", "kv{far}", "2147483646001"}), "1");
    EXPECT_TRUE(ttl_is("far", INT32_MAX));
}

}  // namespace
}  // namespace kelvane_test
