// Time-to-live rules of every write, and keys of the other kind.
#include <cstdlib>
#include <functional>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using TimeToLive = LibraryTest;
using KeyKinds = LibraryTest;

// One write of each kind; step makes successive calls differ where needed.
struct Write {
    const char* name;
    bool sorted, writes_values;
    std::function<int32_t(kv_client*, const std::string&, int32_t ttl, int step)> call;
};
const double two[] = {1, 2};
const char* const mn[] = {"m", "n"};
const char* const vw[] = {"v", "w"};
const size_t ones[] = {1, 1};

const std::vector<Write> kWrites = {
    {"sadd", false, false, [](kv_client* c, const std::string& k, int32_t t, int) { return kv_sadd(c, k.data(), k.size(), "m", 1, t); }},
    {"zadd", true, false, [](kv_client* c, const std::string& k, int32_t t, int i) { return kv_zadd(c, k.data(), k.size(), i, "m", 1, t); }},
    {"zaddval", true, true, [](kv_client* c, const std::string& k, int32_t t, int i) { return kv_zaddval(c, k.data(), k.size(), i, "m", 1, "v", 1, t); }},
    {"zmadd", true, false, [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zmadd(c, k.data(), k.size(), two, mn, 2, ones, t); }},
    {"zmaddval", true, true, [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zmaddval(c, k.data(), k.size(), two, mn, 2, ones, vw, ones, t); }},
    {"zaddvalmax", true, true, [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zaddvalmax(c, k.data(), k.size(), "m", 1, "v", 1, 1.0, t); }},
    {"zaddmaxinc", true, false, [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zaddmaxinc(c, k.data(), k.size(), 1, t); }},
    {"zadddis", true, false, [](kv_client* c, const std::string& k, int32_t t, int i) {
         char* kept = nullptr;  // always beyond the drift: nothing comes back
         return kv_zadddis(c, k.data(), k.size(), 100.0 * i, "m", 1, 1.0, &kept, t); }},
    {"zincrby", true, false, [](kv_client* c, const std::string& k, int32_t t, int) {
         double score = 0;
         return kv_zincrby(c, k.data(), k.size(), "m", 1, 1.0, &score, t); }},
};

bool landed(int32_t status) { return status == KV_SUCCESS || status == KV_ALREADY_EXISTS; }

TEST_F(TimeToLive, EveryWriteFollowsTheRule) {
    for (const Write& w : kWrites) {
        SCOPED_TRACE(w.name);
        const std::string key = std::string("ttl-") + w.name;
        const std::string main = "kv{" + key + "}", values = main + ":v";
        auto pttl = [&](const std::string& k) { return std::atoll(redis({"PTTL", k}).c_str()); };
        auto expect_ttl = [&](const std::string& k, int32_t t) {
            int32_t got = -1;
            ASSERT_EQ(ttl_of(k, &got), KV_SUCCESS);
            EXPECT_TRUE(got == t || got == t - 1) << got << " for " << t;
        };

        // A creating write gives exactly t; the server sees seconds, never the marker.
        ASSERT_EQ(w.call(client_, key, 100, 0), KV_SUCCESS);
        expect_ttl(key, 100);
        EXPECT_GT(pttl(main), 98000);
        EXPECT_LE(pttl(main), 100000);
        // A plain t on an existing key changes nothing; a committed one replaces it.
        EXPECT_TRUE(landed(w.call(client_, key, 5000, 1)));
        expect_ttl(key, 100);
        EXPECT_TRUE(landed(w.call(client_, key, COMMIT_TTL(1000), 2)));
        expect_ttl(key, 1000);
        EXPECT_GT(pttl(main), 998000);
        EXPECT_LE(pttl(main), 1000000);

        if (w.sorted) {  // the values hash expires with the main key, to the millisecond
            ASSERT_EQ(zaddval(key, -1000, "valued", "x"), KV_SUCCESS);
            EXPECT_TRUE(landed(w.call(client_, key, COMMIT_TTL(2000), 3)));
            expect_ttl(key, 2000);
            if (w.writes_values) EXPECT_EQ(redis({"EXISTS", values}), "1");
            if (redis({"EXISTS", values}) == "1") {
                EXPECT_EQ(redis({"PEXPIRETIME", values}), redis({"PEXPIRETIME", main}));
            }
        }

        // COMMIT_TTL(0) removes the expiry; a plain t afterwards does not bring it back.
        EXPECT_TRUE(landed(w.call(client_, key, COMMIT_TTL(0), 4)));
        expect_ttl(key, 0);
        EXPECT_EQ(pttl(main), -1);
        if (redis({"EXISTS", values}) == "1") EXPECT_EQ(pttl(values), -1);
        EXPECT_TRUE(landed(w.call(client_, key, 300, 5)));
        EXPECT_EQ(pttl(main), -1);

        // A negative t is refused before anything is written.
        EXPECT_EQ(w.call(client_, key, -5, 6), KV_INVALID_PARAMETER);
        EXPECT_EQ(pttl(main), -1);
        EXPECT_EQ(w.call(client_, key + "-neg", -1, 0), KV_INVALID_PARAMETER);
        EXPECT_EQ(redis({"EXISTS", "kv{" + key + "-neg}"}), "0");

        // Created with 0: no expiry. Created with a committed t: t.
        ASSERT_EQ(w.call(client_, key + "-0", 0, 0), KV_SUCCESS);
        expect_ttl(key + "-0", 0);
        EXPECT_EQ(pttl("kv{" + key + "-0}"), -1);
        ASSERT_EQ(w.call(client_, key + "-c", COMMIT_TTL(50), 0), KV_SUCCESS);
        expect_ttl(key + "-c", 50);
    }
    int32_t ttl = 77;
    EXPECT_EQ(ttl_of("never-written", &ttl), KV_NOTFOUND);
    EXPECT_EQ(ttl, 0);
}

TEST_F(KeyKinds, SortedSetOperationsRefuseAPlainSetAndLeaveItAlone) {
    const char* k = "plain";
    const size_t kl = 5;
    ASSERT_EQ(kv_sadd(client_, k, kl, "m", 1, 100), KV_SUCCESS);
    EXPECT_EQ(kv_sadd(client_, k, kl, "m", 1, 0), KV_ALREADY_EXISTS);

    for (const Write& w : kWrites) {
        if (w.sorted) EXPECT_EQ(w.call(client_, k, COMMIT_TTL(5), 7), KV_WRONG_REPLY) << w.name;
    }
    // Every out-parameter is cleared, whatever it held before.
    char junk = 0;
    char* kept = &junk;
    EXPECT_EQ(kv_zadddis(client_, k, kl, 1, "m", 1, 1, &kept, 0), KV_WRONG_REPLY);
    EXPECT_EQ(kept, nullptr);
    double score = 9;
    EXPECT_EQ(kv_zincrby(client_, k, kl, "m", 1, 1, &score, 0), KV_WRONG_REPLY);
    EXPECT_EQ(score, 0);
    char* value = &junk;
    size_t len = 9;
    score = 9;
    EXPECT_EQ(kv_zscore(client_, k, kl, "m", 1, &score, &value, &len), KV_WRONG_REPLY);
    EXPECT_TRUE(score == 0 && value == nullptr && len == 0);
    uint32_t n = 9;
    value = &junk;
    EXPECT_EQ(kv_zrank(client_, k, kl, "m", 1, &n, ZSET_WITH_VALUES, &value, &len), KV_WRONG_REPLY);
    EXPECT_TRUE(n == 0 && value == nullptr && len == 0);
    uint32_t counts[5] = {9, 9, 9, 9, 9};
    EXPECT_EQ(kv_zcard(client_, k, kl, &counts[0]), KV_WRONG_REPLY);
    EXPECT_EQ(kv_zcount(client_, k, kl, 0, 10, &counts[1]), KV_WRONG_REPLY);
    EXPECT_EQ(kv_zmrem(client_, k, kl, mn, 2, ones, &counts[2]), KV_WRONG_REPLY);
    EXPECT_EQ(kv_zremrangebyscore(client_, k, kl, -1e9, 1e9, &counts[3]), KV_WRONG_REPLY);
    EXPECT_EQ(kv_zremrangebyrank(client_, k, kl, 0, -1, &counts[4]), KV_WRONG_REPLY);
    for (uint32_t c : counts) EXPECT_EQ(c, 0u);
    EXPECT_EQ(kv_zrem(client_, k, kl, "m", 1), KV_WRONG_REPLY);
    const int32_t all = ZSET_WITH_SCORES | ZSET_WITH_VALUES;
    for (int variant = 0; variant < 4; ++variant) {
        SCOPED_TRACE(variant);
        void** m = reinterpret_cast<void**>(&junk); size_t cnt = 9; size_t* ml = reinterpret_cast<size_t*>(&junk);
        double* s = reinterpret_cast<double*>(&junk); void** v = m; size_t* vl = ml;
        int32_t status =
            variant == 0 ? kv_zrange(client_, k, kl, 0, -1, &m, &cnt, &ml, all, &s, &v, &vl)
            : variant == 1 ? kv_zrangebyscore(client_, k, kl, 0, 10, &m, &cnt, &ml, all, &s, &v, &vl)
            : variant == 2 ? kv_zrange_whole(client_, k, kl, 0, -1, &m, &cnt, &ml, "/", 1, all, &s, &v, &vl)
                           : kv_zrangebyscore_whole(client_, k, kl, 0, 10, &m, &cnt, &ml, "/", 1, all, &s, &v, &vl);
        EXPECT_EQ(status, KV_WRONG_REPLY);
        EXPECT_TRUE(!m && cnt == 0 && !ml && !s && !v && !vl);
    }
    // The plain set is exactly as kv_sadd left it, expiry included.
    EXPECT_EQ(redis({"TYPE", "kv{plain}"}), "set");
    EXPECT_EQ(redis({"SMEMBERS", "kv{plain}"}), "m");
    EXPECT_EQ(redis({"EXISTS", "kv{plain}:v"}), "0");
    int32_t ttl = 0;
    EXPECT_EQ(ttl_of(k, &ttl), KV_SUCCESS);
    EXPECT_TRUE(ttl == 100 || ttl == 99) << ttl;

    // And the other way round: kv_sadd on a sorted set.
    ASSERT_EQ(zaddval("sorted", 1, "m", "v", 100), KV_SUCCESS);
    EXPECT_EQ(kv_sadd(client_, "sorted", 6, "n", 1, COMMIT_TTL(5)), KV_WRONG_REPLY);
    EXPECT_EQ(redis({"TYPE", "kv{sorted}"}), "zset");
    EXPECT_EQ(card("sorted"), 1u);
    EXPECT_EQ(ttl_of("sorted", &ttl), KV_SUCCESS);
    EXPECT_TRUE(ttl == 100 || ttl == 99) << ttl;
    // kv_del takes either kind, both server keys at once.
    EXPECT_EQ(kv_del(client_, k, kl), KV_SUCCESS);
    EXPECT_EQ(kv_del(client_, "sorted", 6), KV_SUCCESS);
    EXPECT_EQ(kv_del(client_, k, kl), KV_NOTFOUND);
    EXPECT_EQ(redis({"DBSIZE"}), "0");
}

}  // namespace
}  // namespace kelvane_test
