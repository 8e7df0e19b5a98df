// Writes: what zset's time-to-live cases leave out, keys of the other kind, values hashes that are not what they
// should be, a full server, batches, the highest-score writes, drift, and scores bit for bit.
#include <cfloat>
#include <cstring>
#include <functional>
#include <set>
#include <tuple>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using TimeToLive = LibraryTest;
using KeyKinds = LibraryTest;
using ValuesHash = LibraryTest;
using FullServer = LibraryTest;
using Writes = LibraryTest;

// One write of each kind; step makes successive calls differ where needed.
struct Write {
    const char* name;
    std::function<int32_t(kv_client*, const std::string&, int32_t ttl, int step)> call;
};
const double two[] = {1, 2};
const char* const mn[] = {"m", "n"};
const char* const vw[] = {"v", "w"};
const size_t ones[] = {1, 1};

const std::vector<Write> kSortedWrites = {
    {"zadd", [](kv_client* c, const std::string& k, int32_t t, int i) { return kv_zadd(c, k.data(), k.size(), i, "m", 1, t); }},
    {"zaddval", [](kv_client* c, const std::string& k, int32_t t, int i) { return kv_zaddval(c, k.data(), k.size(), i, "m", 1, "v", 1, t); }},
    {"zmadd", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zmadd(c, k.data(), k.size(), two, mn, 2, ones, t); }},
    {"zmaddval", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zmaddval(c, k.data(), k.size(), two, mn, 2, ones, vw, ones, t); }},
    {"zaddvalmax", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zaddvalmax(c, k.data(), k.size(), "m", 1, "v", 1, 1.0, t); }},
    {"zaddmaxinc", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_zaddmaxinc(c, k.data(), k.size(), 1, t); }},
    // Always beyond the drift: no name comes back.
    {"zadddis", [](kv_client* c, const std::string& k, int32_t t, int i) { char* kept; return kv_zadddis(c, k.data(), k.size(), 100.0 * i, "m", 1, 1.0, &kept, t); }},
    {"zincrby", [](kv_client* c, const std::string& k, int32_t t, int) { double s; return kv_zincrby(c, k.data(), k.size(), "m", 1, 1.0, &s, t); }},
};
const Write kSadd = {"sadd", [](kv_client* c, const std::string& k, int32_t t, int) { return kv_sadd(c, k.data(), k.size(), "m", 1, t); }};

bool landed(int32_t status) { return status == KV_SUCCESS || status == KV_ALREADY_EXISTS; }

// The writes that put or drop a value whatever their time-to-live.
const std::set<std::string> kValueWrites = {"zaddval", "zmaddval", "zaddvalmax", "zaddmaxinc", "zadddis"};

TEST_F(TimeToLive, ZeroCommittedZeroNegativeAndTheValuesHash) {
    std::vector<Write> writes = kSortedWrites;
    writes.push_back(kSadd);
    for (const Write& w : writes) {
        SCOPED_TRACE(w.name);
        const std::string key = std::string("ttl-") + w.name, main = "kv{" + key + "}", values = main + ":v";
        ASSERT_EQ(w.call(client_, key, 0, 0), KV_SUCCESS);
        EXPECT_EQ(redis({"PTTL", main}), "-1");
        if (std::string(w.name) != "sadd") ASSERT_EQ(zaddval(key, -1000, "valued", "x"), KV_SUCCESS);
        ASSERT_TRUE(landed(w.call(client_, key, COMMIT_TTL(2000), 1)));
        EXPECT_TRUE(ttl_is(key, 2000));
        if (redis({"EXISTS", values}) == "1") {  // the values hash expires with the main key, to the millisecond
            EXPECT_EQ(redis({"PEXPIRETIME", values}), redis({"PEXPIRETIME", main}));
        }
        EXPECT_TRUE(landed(w.call(client_, key, COMMIT_TTL(0), 2)));
        EXPECT_EQ(ttl(key), 0);
        EXPECT_EQ(redis({"PTTL", main}), "-1");
        if (redis({"EXISTS", values}) == "1") EXPECT_EQ(redis({"PTTL", values}), "-1");
        EXPECT_TRUE(landed(w.call(client_, key, 300, 3)));  // a plain one does not bring it back
        EXPECT_EQ(redis({"PTTL", main}), "-1");
        EXPECT_EQ(w.call(client_, key + "-neg", -1, 0), KV_INVALID_PARAMETER);
        EXPECT_EQ(redis({"EXISTS", "kv{" + key + "-neg}"}), "0");
    }
}

TEST_F(KeyKinds, TheOtherKindIsRefusedAndLeftAlone) {
    ASSERT_EQ(kv_sadd(client_, "plain", 5, "m", 1, 100), KV_SUCCESS);
    for (const Write& w : kSortedWrites) EXPECT_EQ(w.call(client_, "plain", COMMIT_TTL(5), 7), KV_WRONG_REPLY) << w.name;
    // The reads and removals zset does not try on a plain set.
    char* kept = reinterpret_cast<char*>(RangeOut::junk);
    uint32_t removed[2] = {9, 9};
    for (int32_t status : {kv_zadddis(client_, "plain", 5, 1, "m", 1, 1, &kept, 0), score_of("plain", "m").status,
                           kv_zrem(client_, "plain", 5, "m", 1), kv_zmrem(client_, "plain", 5, mn, 2, ones, &removed[0]),
                           kv_zremrangebyscore(client_, "plain", 5, -kInf, kInf, &removed[1]),
                           range("plain", 0, -1).status, by_score("plain", 0, 9).status}) {
        EXPECT_EQ(status, KV_WRONG_REPLY);
    }
    EXPECT_TRUE(kept == nullptr && removed[0] == 0 && removed[1] == 0);
    EXPECT_EQ(redis({"TYPE", "kv{plain}"}), "set");
    EXPECT_EQ(redis({"SMEMBERS", "kv{plain}"}), "m");
    EXPECT_EQ(redis({"EXISTS", "kv{plain}:v"}), "0");
    EXPECT_TRUE(ttl_is("plain", 100));

    ASSERT_EQ(zaddval("sorted", 1, "m", "v", 100), KV_SUCCESS);
    EXPECT_EQ(kv_sadd(client_, "sorted", 6, "n", 1, COMMIT_TTL(5)), KV_WRONG_REPLY);
    EXPECT_EQ(range("sorted", 0, -1).values, Values{"v"});
    EXPECT_TRUE(ttl_is("sorted", 100));
}

TEST_F(ValuesHash, OfAnotherKindStopsEveryWriteThatWouldTouchItBeforeAnythingChanges) {
    // Every write touches the hash when it moves the expiry (committed) or makes the set (a hash left behind goes);
    // those that put or drop a value touch it always.
    for (const Write& w : kSortedWrites) {
        SCOPED_TRACE(w.name);
        const std::string held = std::string("held-") + w.name, fresh = std::string("fresh-") + w.name;
        const std::string main = "kv{" + held + "}";
        ASSERT_EQ(zadd(held, 1, "m", 100), KV_SUCCESS);
        redis({"SET", main + ":v", "foreign"});
        redis({"SET", "kv{" + fresh + "}:v", "foreign"});
        const std::string before = redis({"ZRANGE", main, "0", "-1", "WITHSCORES"}) + redis({"PEXPIRETIME", main});
        EXPECT_EQ(w.call(client_, held, COMMIT_TTL(5), 7), KV_WRONG_REPLY);
        EXPECT_EQ(w.call(client_, fresh, 5, 7), KV_WRONG_REPLY);
        if (kValueWrites.count(w.name)) EXPECT_EQ(w.call(client_, held, 5, 7), KV_WRONG_REPLY);
        EXPECT_EQ(redis({"ZRANGE", main, "0", "-1", "WITHSCORES"}) + redis({"PEXPIRETIME", main}), before);
        EXPECT_EQ(redis({"EXISTS", "kv{" + fresh + "}"}), "0");
        EXPECT_EQ(redis({"MGET", main + ":v", "kv{" + fresh + "}:v"}), "foreign,foreign");
    }
    char* kept = reinterpret_cast<char*>(RangeOut::junk);  // within the drift the holder would lose its value
    EXPECT_EQ(kv_zadddis(client_, "held-zadd", 9, 1.5, "n", 1, 5, &kept, 0), KV_WRONG_REPLY);
    EXPECT_EQ(kept, nullptr);
    EXPECT_EQ(redis({"ZRANGE", "kv{held-zadd}", "0", "-1", "WITHSCORES"}), "m,1");
}

TEST_F(ValuesHash, LeftWithoutItsSetItGoesWhenAWriteMakesTheSetAgain) {
    for (const Write& w : kSortedWrites) {
        SCOPED_TRACE(w.name);
        const std::string key = std::string("left-") + w.name, values = "kv{" + key + "}:v";
        redis({"HSET", values, "m", "stale", "n", "stale", "1", "stale"});
        ASSERT_TRUE(landed(w.call(client_, key, 0, 0)));
        EXPECT_EQ(redis({"HVALS", values}).find("stale"), std::string::npos);
    }
}

TEST_F(TimeToLive, AValuesHashAWriteMakesExpiresWithItsSet) {
    for (const Write& w : kSortedWrites) {
        if (std::set<std::string>{"zaddval", "zmaddval", "zaddvalmax"}.count(w.name) == 0) continue;
        SCOPED_TRACE(w.name);
        const std::string held = std::string("held-") + w.name, fresh = std::string("fresh-") + w.name;
        ASSERT_EQ(zadd(held, 0, "x", 100), KV_SUCCESS);  // a set with an expiry and no values yet
        ASSERT_TRUE(landed(w.call(client_, held, 0, 1)));
        ASSERT_TRUE(landed(w.call(client_, fresh, 100, 1)));
        for (const std::string& key : {held, fresh}) {
            const std::string main = "kv{" + key + "}";
            EXPECT_NE(redis({"PEXPIRETIME", main}), "-1") << key;
            EXPECT_EQ(redis({"PEXPIRETIME", main + ":v"}), redis({"PEXPIRETIME", main})) << key;
        }
    }
}

TEST_F(FullServer, WritesAreRefusedWhileReadsAndRemovalsWork) {
    ASSERT_EQ(zaddval("full", 1, "a", "va", 100), KV_SUCCESS);
    ASSERT_EQ(zaddval("full", 2, "b", "vb"), KV_SUCCESS);
    ASSERT_EQ(redis({"CONFIG", "SET", "maxmemory-policy", "noeviction"}), "OK");
    ASSERT_EQ(redis({"CONFIG", "SET", "maxmemory", "1"}), "OK");
    std::vector<Write> writes = kSortedWrites;
    writes.push_back(kSadd);
    for (const Write& w : writes) {
        EXPECT_FALSE(landed(w.call(client_, "full", COMMIT_TTL(5), 1))) << w.name;
        EXPECT_FALSE(landed(w.call(client_, std::string("new-") + w.name, 0, 1))) << w.name;
    }
    EXPECT_EQ(redis({"DBSIZE"}), "2");
    EXPECT_EQ(score_of("full", "b").value, "vb");
    EXPECT_EQ(range("full", 0, -1).values, (Values{"va", "vb"}));
    EXPECT_TRUE(ttl_is("full", 100));
    uint32_t removed = 0;
    EXPECT_EQ(kv_zrem(client_, "full", 4, "a", 1), KV_SUCCESS);
    EXPECT_EQ(kv_zremrangebyrank(client_, "full", 4, 0, -1, &removed), KV_SUCCESS);
    EXPECT_EQ(removed, 1u);
    EXPECT_EQ(redis({"DBSIZE"}), "0");
}

TEST_F(Writes, DuplicatesKeepOrReplaceValuesAndBatchesLandWhole) {
    ASSERT_EQ(zaddval("d", 1, "a", "va"), KV_SUCCESS);
    EXPECT_EQ(zadd("d", 2, "a"), KV_ALREADY_EXISTS);
    EXPECT_EQ(score_of("d", "a").value, "va");
    EXPECT_EQ(kv_zaddval(client_, "d", 1, 4, "e", 1, nullptr, 0, 0), KV_SUCCESS);
    EXPECT_EQ(score_of("d", "e").value, "");

    // New and existing members in one batch; a name given twice takes its last.
    const double scores[] = {10, 11, 12, 13};
    const char* members[] = {"n1", "n2", "a", "n1"};
    const char* values[] = {"N1", "N2", "A", "N1-last"};
    const size_t lens[] = {2, 2, 1, 2}, vlens[] = {2, 2, 1, 7};
    EXPECT_EQ(kv_zmaddval(client_, "d", 1, scores, members, 4, lens, values, vlens, 0), KV_ALREADY_EXISTS);
    Range r = range("d", 0, -1);
    EXPECT_EQ(r.members, (Strings{"e", "n2", "a", "n1"}));
    EXPECT_EQ(r.scores, (std::vector<double>{4, 11, 12, 13}));
    EXPECT_EQ(r.values, (Values{"", "N2", "A", "N1-last"}));
    EXPECT_EQ(kv_zmadd(client_, "d", 1, scores, members, 4, lens, 0), KV_ALREADY_EXISTS);
    EXPECT_EQ(range("d", 0, -1).values, (Values{"", "N2", "A", "N1-last"}));
    EXPECT_EQ(kv_zmadd(client_, "fresh", 5, scores, members, 4, lens, 0), KV_SUCCESS);
    EXPECT_EQ(range("fresh", 0, -1).members, (Strings{"n2", "a", "n1"}));
}

TEST_F(Writes, LargeBatchWithValuesRoundTrips) {
    const int n = 5000;
    Strings names(n), values(n);
    std::vector<double> scores(n);
    std::vector<const char*> mp(n), vp(n);
    std::vector<size_t> ml(n), vl(n);
    for (int i = 0; i < n; ++i) {
        names[i] = "m" + std::string(5 - std::to_string(i).size(), '0') + std::to_string(i);
        values[i] = "value-" + std::to_string(i) + std::string(i % 7, '\0');
        scores[i] = i * 0.5;
        mp[i] = names[i].data(), ml[i] = names[i].size(), vp[i] = values[i].data(), vl[i] = values[i].size();
    }
    ASSERT_EQ(kv_zmaddval(client_, "big", 3, scores.data(), mp.data(), n, ml.data(), vp.data(), vl.data(), 0),
              KV_SUCCESS);
    Range all = range("big", 0, -1);
    ASSERT_EQ(all.members, names);
    EXPECT_EQ(all.scores, scores);
    EXPECT_EQ(all.values, Values(values.begin(), values.end()));
    Range bare = read([&](RangeOut& o) {
        o.s = nullptr;
        return kv_zrange(client_, "big", 3, 0, -1, &o.m, &o.n, &o.ml, ZSET_WITH_VALUES, &o.v, &o.vl);
    });
    EXPECT_EQ(bare.values, all.values);
    uint32_t removed = 0;
    EXPECT_EQ(kv_zremrangebyrank(client_, "big", 3, 0, n - 501, &removed), KV_SUCCESS);
    EXPECT_EQ(removed, uint32_t(n - 500));
    EXPECT_EQ(redis({"HLEN", "kv{big}:v"}), "500");
    EXPECT_EQ(kv_zmrem(client_, "big", 3, mp.data(), n, ml.data(), &removed), KV_SUCCESS);
    EXPECT_EQ(removed, 500u);
    EXPECT_EQ(redis({"EXISTS", "kv{big}", "kv{big}:v"}), "0");
}

TEST_F(Writes, HighestScoreWritesOnAnEmptySetAndTheNamesOfScores) {
    EXPECT_EQ(kv_zaddvalmax(client_, "fresh", 5, "m", 1, "v", 1, -2.5, 0), KV_SUCCESS);
    EXPECT_EQ(score_of("fresh", "m").score, -2.5);
    ASSERT_EQ(zadd("tenth", 0.1, "x"), KV_SUCCESS);  // a sum made on the server leaves it in full
    EXPECT_EQ(kv_zaddvalmax(client_, "tenth", 5, "m", 1, "v", 1, 0.2, 0), KV_SUCCESS);
    EXPECT_EQ(score_of("tenth", "m").score, 0.1 + 0.2);
    for (const auto& [max, increment, name] : {std::tuple{2.5, 1, "3.5"}, std::tuple{0.1, 2, "2.1"},
                                               std::tuple{5.0, -7, "-2"}, std::tuple{1e17, 0, "100000000000000000"}}) {
        const std::string key = std::string("max-") + name;
        ASSERT_EQ(zadd(key, max, "x"), KV_SUCCESS);
        ASSERT_EQ(kv_zaddmaxinc(client_, key.data(), key.size(), increment, 0), KV_SUCCESS);
        EXPECT_EQ(score_of(key, name).score, max + increment) << name;
    }
}

TEST_F(Writes, AddWithDriftMovesTheLastHolderOrStartsAgainKeepingTheExpiry) {
    // The status and the name handed back ("" for none), released.
    auto dis = [&](double score, const std::string& member) {
        char* kept = reinterpret_cast<char*>(RangeOut::junk);
        int32_t status = kv_zadddis(client_, "dr", 2, score, member.data(), member.size(), 5, &kept, 0);
        std::string name = kept != nullptr ? kept : "";
        mm_->release(kept);
        return std::pair{status, name};
    };
    ASSERT_EQ(zadd("dr", 10, "a", 100), KV_SUCCESS);
    ASSERT_EQ(zaddval("dr", 10, "b", "vb"), KV_SUCCESS);
    ASSERT_EQ(zaddval("dr", 1, "low", "vl"), KV_SUCCESS);
    // Of equal highest scores the last in byte order moves and loses its value; the new member stays out.
    EXPECT_EQ(dis(13, "c"), std::pair(KV_SUCCESS, std::string("b")));
    EXPECT_EQ(range("dr", 0, -1).values, (Values{"vl", std::nullopt, std::nullopt}));
    // Exactly the drift away counts as within; so does a lower score.
    EXPECT_EQ(dis(18, "d"), std::pair(KV_SUCCESS, std::string("b")));
    EXPECT_EQ(dis(3, "d"), std::pair(KV_SUCCESS, std::string("b")));
    EXPECT_EQ(range("dr", 0, -1).members, (Strings{"low", "b", "a"}));

    EXPECT_EQ(dis(100, "low"), std::pair(KV_ALREADY_EXISTS, std::string()));
    EXPECT_EQ(range("dr", 0, -1).members, Strings{"low"});
    EXPECT_EQ(redis({"EXISTS", "kv{dr}:v"}), "0");
    EXPECT_TRUE(ttl_is("dr", 100));

    // Below zero, a score under the highest can be beyond the drift: members on both sides of it go.
    ASSERT_EQ(zaddval("dr", 200, "top", "vt"), KV_SUCCESS);
    ASSERT_EQ(zaddval("dr", 50, "bottom", "vb"), KV_SUCCESS);
    char* kept = reinterpret_cast<char*>(RangeOut::junk);
    EXPECT_EQ(kv_zadddis(client_, "dr", 2, 150, "mid", 3, -60, &kept, 0), KV_SUCCESS);
    EXPECT_EQ(kept, nullptr);
    EXPECT_EQ(range("dr", 0, -1).members, Strings{"mid"});
    EXPECT_EQ(redis({"EXISTS", "kv{dr}:v"}), "0");
    EXPECT_TRUE(ttl_is("dr", 100));
}

TEST_F(Writes, ScoresSurviveTheServerBitForBit) {
    const std::vector<double> awkward = {-kInf, -DBL_MAX, -5e-324, 0.0, 5e-324, DBL_MIN, 1e-300,
                                         0.1, 1.0 / 3, 123456789.123456789, DBL_MAX, kInf};
    auto same_bits = [](double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; };
    for (size_t i = 0; i < awkward.size(); ++i) {
        ASSERT_EQ(zadd("exact", awkward[i], "s" + std::to_string(i)), KV_SUCCESS);
        const double got = score_of("exact", "s" + std::to_string(i)).score;
        EXPECT_TRUE(same_bits(got, awkward[i])) << awkward[i] << " came back as " << got;
    }
    Range all = by_score("exact", -kInf, kInf);
    ASSERT_EQ(all.scores.size(), awkward.size());
    for (size_t i = 0; i < awkward.size(); ++i) EXPECT_TRUE(same_bits(all.scores[i], awkward[i])) << i;
    ASSERT_EQ(zadd("exact", -0.0, "negzero"), KV_SUCCESS);  // the server may drop the sign
    EXPECT_EQ(score_of("exact", "negzero").score, 0.0);
    double score = 42;
    EXPECT_EQ(kv_zincrby(client_, "exact", 5, "s11", 3, -kInf, &score, 0), KV_INVALID_PARAMETER);
    EXPECT_EQ(score, 0);
    EXPECT_EQ(score_of("exact", "s11").score, kInf);
}

}  // namespace
}  // namespace kelvane_test
