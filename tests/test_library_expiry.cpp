// kv_get_ttl rounds the remaining time up to whole seconds: a key that will expire reports at least 1 until the
// moment it is gone (0 would say "never expires"), then KV_NOTFOUND.
#include <chrono>
#include <thread>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

class Expiry : public LibraryTest {
protected:
    // Gives both server keys of key the same expiry in milliseconds, as a write would have.
    void expire_in(const std::string& key, int ms) {
        ASSERT_EQ(redis({"PEXPIRE", "kv{" + key + "}", std::to_string(ms)}), "1");
        ASSERT_EQ(redis({"PEXPIRE", "kv{" + key + "}:v", std::to_string(ms)}), "1");
    }
};

TEST_F(Expiry, RemainingTimeIsRoundedUpAndNeverZeroBeforeTheKeyGoes) {
    ASSERT_EQ(zaddval("short", 1, "m", "v", 100), KV_SUCCESS);
    EXPECT_EQ(ttl("short"), 100) << "a fresh time-to-live reads back whole";
    expire_in("short", 1500);
    EXPECT_EQ(ttl("short"), 2) << "1.5 s left";

    expire_in("short", 600);
    int polls = 0, zeros = 0;
    int32_t status = KV_SUCCESS, t = -1;
    const auto give_up = Clock::now() + 3s;
    while (Clock::now() < give_up) {
        t = -1;
        status = kv_get_ttl(client_, "short", 5, &t);
        if (status != KV_SUCCESS) break;
        ++polls;
        zeros += t == 0;
        EXPECT_TRUE(t == 0 || t == 1) << t;
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_GT(polls, 0);
    EXPECT_EQ(zeros, 0) << "of " << polls << " answers while the key existed";
    EXPECT_EQ(status, KV_NOTFOUND) << "once it expired";
    EXPECT_EQ(t, 0);
}

}  // namespace
}  // namespace kelvane_test
