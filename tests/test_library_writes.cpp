// Writes against what the random-operation model never sets up: the values hash's expiry to the millisecond,
// remaining time rounded up, a values hash that is not a hash or outlived its set, and a server at its memory
// limit.
#include <chrono>
#include <functional>
#include <thread>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// One write of each kind; step makes successive calls on a key differ where it matters.
struct Write {
    const char* name;
    int32_t (*call)(kv_client*, const std::string& key, int32_t ttl, int step);
    bool sorted;  // false for kv_sadd
};
const double two[] = {1, 2};
const char* const mn[] = {"m", "n"};
const char* const vw[] = {"v", "w"};
const size_t ones[] = {1, 1};

const std::vector<Write> kWrites = {
    {"zadd", [](kv_client* c, const std::string& k, int32_t t, int i) { return kv_zadd(c, k.data(), k.size(), i, "m", 1, t); }, true},
    {"zaddval", [](kv_client* c, const std::string& k, int32_t t, int i) { return kv_zaddval(c, k.data(), k.size(), i, "m", 1, "v", 1, t); }, true},
    {"zmadd", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zmadd(c, k.data(), k.size(), two, mn, 2, ones, t); }, true},
    {"zmaddval", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zmaddval(c, k.data(), k.size(), two, mn, 2, ones, vw, ones, t); }, true},
    {"zaddvalmax", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zaddvalmax(c, k.data(), k.size(), "m", 1, "v", 1, 1.0, t); }, true},
    {"zaddmaxinc", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zaddmaxinc(c, k.data(), k.size(), 1, t); }, true},
    // Always beyond the drift: no name comes back.
    {"zadddis", [](kv_client* c, const std::string& k, int32_t t, int i) { char* kept; return kv_zadddis(c, k.data(), k.size(), 100.0 * i, "m", 1, 1.0, &kept, t); }, true},
    {"zincrby", [](kv_client* c, const std::string& k, int32_t t, int) { double s; return kv_zincrby(c, k.data(), k.size(), "m", 1, 1.0, &s, t); }, true},
    {"sadd", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_sadd(c, k.data(), k.size(), "m", 1, t); }, false},
};

bool landed(int32_t status) { return status == KV_SUCCESS || status == KV_ALREADY_EXISTS; }

using TimeToLive = LibraryTest;
using TamperedValues = LibraryTest;
using FullServer = LibraryTest;

TEST_F(TimeToLive, TheValuesHashExpiresWithItsSetWhoeverMadeEither) {
    const auto together = [&](const std::string& key) {
        const std::string main = "kv{" + key + "}";
        if (redis({"EXISTS", main + ":v"}) == "1") {
            EXPECT_EQ(redis({"PEXPIRETIME", main + ":v"}), redis({"PEXPIRETIME", main})) << key;
        }
    };
    for (const Write& w : kWrites) {
        if (!w.sorted) continue;  // a plain set has no values hash
        SCOPED_TRACE(w.name);
        const std::string key = std::string("ttl-") + w.name;
        ASSERT_EQ(zadd(key, -1000, "x", 100), KV_SUCCESS);  // a set with an expiry and no values yet
        ASSERT_TRUE(landed(w.call(client_, key, 0, 1)));
        together(key);
        ASSERT_EQ(zaddval(key, -999, "valued", "v"), KV_SUCCESS);
        ASSERT_TRUE(landed(w.call(client_, key, COMMIT_TTL(2000), 2)));
        EXPECT_TRUE(ttl_is(key, 2000));
        together(key);
        EXPECT_TRUE(landed(w.call(client_, key, COMMIT_TTL(0), 3)));
        EXPECT_EQ(ttl(key), 0);
        together(key);
    }
}

// 0 would say "never expires": a key that will expire reports at least 1 until the moment it is gone.
TEST_F(TimeToLive, RemainingTimeIsRoundedUpAndNeverZeroBeforeTheKeyGoes) {
    ASSERT_EQ(zaddval("short", 1, "m", "v", 100), KV_SUCCESS);
    const auto expire_in = [&](const char* ms) {
        for (const char* k : {"kv{short}", "kv{short}:v"}) ASSERT_EQ(redis({"PEXPIRE", k, ms}), "1");
    };
    expire_in("1500");
    EXPECT_EQ(ttl("short"), 2);
    expire_in("600");
    int polls = 0;
    int32_t status = KV_SUCCESS, t = -1;
    for (const auto give_up = Clock::now() + 3s; Clock::now() < give_up; std::this_thread::sleep_for(10ms)) {
        t = -1;
        status = kv_get_ttl(client_, "short", 5, &t);
        if (status != KV_SUCCESS) break;
        ++polls;
        ASSERT_EQ(t, 1) << "answer " << polls << " while the key existed";
    }
    EXPECT_GT(polls, 0);
    EXPECT_EQ(status, KV_NOTFOUND) << "once it expired";
    EXPECT_EQ(t, 0);
}

// A values hash that someone else made a string while its set stays: what would touch the hash answers
// KV_WRONG_REPLY and leaves both keys as they were; what never touches it lands on the set alone.
TEST_F(TamperedValues, WhatWouldTouchTheValuesIsRefusedWholeTheRestLandsOnTheSet) {
    ASSERT_EQ(zaddval("k", 1, "a", "va"), KV_SUCCESS);
    ASSERT_EQ(zaddval("k", 2, "b", "vb"), KV_SUCCESS);
    ASSERT_EQ(redis({"SET", "kv{k}:v", "x"}), "OK");
    double score = 42;
    EXPECT_EQ(zadd("k", 3, "c"), KV_SUCCESS);
    EXPECT_EQ(zadd("k", 9, "a"), KV_ALREADY_EXISTS);
    EXPECT_EQ(kv_zmadd(client_, "k", 1, two, mn, 2, ones, 0), KV_SUCCESS);
    EXPECT_EQ(kv_zincrby(client_, "k", 1, "a", 1, 1, &score, 0), KV_SUCCESS);
    EXPECT_EQ(score, 10);
    const std::string before = server_view("kv{k}") + "\n" + server_view("kv{k}:v");
    EXPECT_EQ(before, "kv{k}: zset [m,1,b,2,n,2,c,3,a,10] expires -1\nkv{k}:v: string [x] expires -1");

    char* kept = reinterpret_cast<char*>(RangeOut::junk);
    char* value = kept;
    size_t len = 7;
    uint32_t n = 9;
    const std::vector<std::pair<const char*, std::function<int32_t()>>> refused = {
        {"zadd committing", [&] { return zadd("k", 5, "e", COMMIT_TTL(60)); }},
        {"zaddval", [&] { return zaddval("k", 4, "d", "vd"); }},
        {"zmaddval", [&] { return kv_zmaddval(client_, "k", 1, two, mn, 2, ones, vw, ones, 0); }},
        {"zaddvalmax", [&] { return kv_zaddvalmax(client_, "k", 1, "d", 1, "vd", 2, 1, 0); }},
        {"zaddmaxinc", [&] { return kv_zaddmaxinc(client_, "k", 1, 1, 0); }},
        {"zadddis within", [&] { return kv_zadddis(client_, "k", 1, 9.5, "d", 1, 1, &kept, 0); }},
        {"zadddis beyond", [&] { return kv_zadddis(client_, "k", 1, 100, "d", 1, 1, &kept, 0); }},
        {"zincrby committing", [&] { return kv_zincrby(client_, "k", 1, "a", 1, 1, &score, COMMIT_TTL(60)); }},
        {"zscore", [&] { return zscore_status(client_, "k", "a"); }},
        {"zrank with values", [&] { return kv_zrank(client_, "k", 1, "b", 1, &n, ZSET_WITH_VALUES, &value, &len); }},
        {"zrange with values", [&] { return range("k", 0, -1).status; }},
        {"zrem", [&] { return kv_zrem(client_, "k", 1, "a", 1); }},
        {"zmrem", [&] { return kv_zmrem(client_, "k", 1, mn, 2, ones, &n); }},
        {"zremrangebyscore", [&] { return kv_zremrangebyscore(client_, "k", 1, 1, 2, &n); }},
        {"zremrangebyrank", [&] { return kv_zremrangebyrank(client_, "k", 1, 0, 0, &n); }},
    };
    for (const auto& [name, call] : refused) {
        EXPECT_EQ(call(), KV_WRONG_REPLY) << name;
        EXPECT_EQ(server_view("kv{k}") + "\n" + server_view("kv{k}:v"), before) << name << " changed the keys";
    }
    EXPECT_TRUE(kept == nullptr && score == 0 && value == nullptr && len == 0 && n == 0);
    EXPECT_EQ(kv_del(client_, "k", 1), KV_SUCCESS);
    EXPECT_EQ(redis({"EXISTS", "kv{k}", "kv{k}:v"}), "0");
}

// A values hash left without its set (evicted on a full server, say): a string there stops every write that would
// make the set; a hash there goes, so that no new member inherits a value.
TEST_F(TamperedValues, LeftWithoutItsSet) {
    for (const Write& w : kWrites) {
        if (!w.sorted) continue;
        SCOPED_TRACE(w.name);
        const std::string string_left = std::string("s-") + w.name, hash_left = std::string("h-") + w.name;
        redis({"SET", "kv{" + string_left + "}:v", "foreign"});
        redis({"HSET", "kv{" + hash_left + "}:v", "m", "stale", "n", "stale", "1", "stale"});
        EXPECT_EQ(w.call(client_, string_left, 5, 1), KV_WRONG_REPLY);
        EXPECT_EQ(redis({"EXISTS", "kv{" + string_left + "}"}) + redis({"GET", "kv{" + string_left + "}:v"}),
                  "0foreign");
        ASSERT_TRUE(landed(w.call(client_, hash_left, 0, 1)));
        EXPECT_EQ(redis({"HVALS", "kv{" + hash_left + "}:v"}).find("stale"), std::string::npos);
    }
}

// A server at its memory limit (maxmemory, noeviction), on the connection a client had and on a brand-new one.
TEST_F(FullServer, ServesReadsRemovalsDelAndTtlRefusesWritesAndLosesNothing) {
    for (const std::string key : {"full0", "full1"}) {
        ASSERT_EQ(zaddval(key, 1, "a", "va", 100), KV_SUCCESS);
        ASSERT_EQ(zaddval(key, 2, "b", "vb"), KV_SUCCESS);
        ASSERT_EQ(zadd(key, 3, "m"), KV_SUCCESS);
        ASSERT_EQ(zadd(key, 4, "n"), KV_SUCCESS);
        const std::string plain = "plain-" + key;
        ASSERT_EQ(kv_sadd(client_, plain.data(), plain.size(), "p", 1, 0), KV_SUCCESS);
    }
    ASSERT_EQ(redis({"CONFIG", "SET", "maxmemory-policy", "noeviction"}), "OK");
    ASSERT_EQ(redis({"CONFIG", "SET", "maxmemory", "1"}), "OK");
    const auto stored = [&] {
        std::string s = redis({"DBSIZE"});
        for (const char* k : {"kv{full0}", "kv{full0}:v", "kv{full1}", "kv{full1}:v", "kv{plain-full0}"}) s += server_view(k);
        return s;
    };
    for (int round : {0, 1}) {
        SCOPED_TRACE(round == 0 ? "the connection the client had" : "a brand-new client");
        kv_client* c = round == 0 ? client_ : another(server_->port());
        const std::string key = "full" + std::to_string(round), plain = "plain-" + key;
        const char* k = key.data();
        const std::string before = stored();
        for (const Write& w : kWrites) {
            EXPECT_EQ(w.call(c, w.sorted ? key : plain, COMMIT_TTL(5), 1), KV_SERVER_FULL) << w.name;
            EXPECT_EQ(w.call(c, "fresh", 0, 1), KV_SERVER_FULL) << w.name;
        }
        EXPECT_EQ(stored(), before) << "a refused write changed the data";

        uint32_t n = 0;
        EXPECT_EQ(zscore_status(c, key, "b"), KV_SUCCESS);
        EXPECT_EQ(kv_zrank(c, k, 5, "b", 1, &n, ZSET_REVERSE), KV_SUCCESS);
        EXPECT_EQ(kv_zcount(c, k, 5, -kInf, kInf, &n), KV_SUCCESS);
        EXPECT_EQ(n, 4u);
        EXPECT_EQ(range(key, 0, -1, c).values, (Values{"va", "vb", std::nullopt, std::nullopt}));
        EXPECT_TRUE(ttl_is(key, 100, c));

        EXPECT_EQ(kv_zremrangebyscore(c, k, 5, 1, 1, &n), KV_SUCCESS);
        EXPECT_EQ(kv_zremrangebyrank(c, k, 5, 0, 0, &n), KV_SUCCESS);
        EXPECT_EQ(kv_zrem(c, k, 5, "m", 1), KV_SUCCESS);
        EXPECT_EQ(kv_zmrem(c, k, 5, mn + 1, 1, ones, &n), KV_SUCCESS);
        EXPECT_EQ(kv_del(c, plain.data(), plain.size()), KV_SUCCESS);
        EXPECT_EQ(redis({"EXISTS", "kv{" + key + "}", "kv{" + key + "}:v", "kv{" + plain + "}"}), "0");
    }
    ASSERT_EQ(redis({"CONFIG", "SET", "maxmemory", "0"}), "OK");
    for (const Write& w : kWrites) EXPECT_TRUE(landed(w.call(client_, std::string("after-") + w.name, 0, 1))) << w.name;
}

}  // namespace
}  // namespace kelvane_test
