// Sorted-set writes: duplicates, batches, the highest-score writes, drift,
// and scores that must survive the trip to the server bit for bit.
#include <algorithm>
#include <cfloat>
#include <cstring>
#include <limits>
#include <tuple>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using Writes = LibraryTest;
using Strings = std::vector<std::string>;
const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST_F(Writes, DuplicatesAndBatchesLandAndReplaceScoresAndValues) {
    ASSERT_EQ(zaddval("d", 1, "a", "va"), KV_SUCCESS);
    EXPECT_EQ(zadd("d", 2, "a"), KV_ALREADY_EXISTS);  // kv_zadd keeps the value
    EXPECT_EQ(score_of("d", "a").score, 2);
    EXPECT_EQ(score_of("d", "a").value, "va");
    EXPECT_EQ(zaddval("d", 3, "a", "vb"), KV_ALREADY_EXISTS);
    EXPECT_EQ(score_of("d", "a").score, 3);
    EXPECT_EQ(score_of("d", "a").value, "vb");
    // An empty value is a value, not the absence of one.
    EXPECT_EQ(kv_zaddval(client_, "d", 1, 4, "e", 1, nullptr, 0, 0), KV_SUCCESS);
    EXPECT_EQ(score_of("d", "e").value, "");

    // Batches mixing new and existing members land whole; a member named twice takes the last.
    const double scores[] = {10, 11, 12, 13};
    const char* members[] = {"a", "n1", "n2", "n1"};
    const char* values[] = {"A", "N1", "N2", "N1-last"};
    const size_t lens[] = {1, 2, 2, 2}, vlens[] = {1, 2, 2, 7};
    EXPECT_EQ(kv_zmaddval(client_, "d", 1, scores, members, 4, lens, values, vlens, 0), KV_ALREADY_EXISTS);
    EXPECT_EQ(score_of("d", "a").value, "A");
    EXPECT_EQ(score_of("d", "n1").score, 13);
    EXPECT_EQ(score_of("d", "n1").value, "N1-last");
    EXPECT_EQ(score_of("d", "n2").score, 12);
    const char* fresh[] = {"p", "q", "p"};
    const size_t ones[] = {1, 1, 1};
    EXPECT_EQ(kv_zmadd(client_, "batch", 5, scores, fresh, 3, ones, 0), KV_SUCCESS);
    EXPECT_EQ(card("batch"), 2u);
    EXPECT_EQ(kv_zmadd(client_, "batch", 5, scores, fresh, 0, ones, 0), KV_INVALID_PARAMETER);
}

TEST_F(Writes, HighestScoreWritesAndTheirMemberNames) {
    // kv_zaddvalmax: highest score plus increment, the increment alone when empty.
    ASSERT_EQ(zadd("d", 4, "a"), KV_SUCCESS);
    EXPECT_EQ(kv_zaddvalmax(client_, "d", 1, "b", 1, "v1", 2, 1.5, 0), KV_SUCCESS);
    EXPECT_EQ(score_of("d", "b").score, 5.5);
    EXPECT_EQ(kv_zaddvalmax(client_, "d", 1, "b", 1, "v2", 2, 1, 0), KV_ALREADY_EXISTS);
    EXPECT_EQ(score_of("d", "b").score, 6.5);
    EXPECT_EQ(score_of("d", "b").value, "v2");
    EXPECT_EQ(kv_zaddvalmax(client_, "fresh", 5, "m", 1, "v", 1, -2.5, 0), KV_SUCCESS);
    EXPECT_EQ(score_of("fresh", "m").score, -2.5);

    // kv_zaddmaxinc names the member after its score.
    ASSERT_EQ(kv_zaddmaxinc(client_, "inc", 3, 5, 0), KV_SUCCESS);
    ASSERT_EQ(kv_zaddmaxinc(client_, "inc", 3, -7, 0), KV_SUCCESS);
    EXPECT_EQ(range("inc", 0, -1).members, (Strings{"-2", "5"}));
    for (const auto& [max, increment, name] :
         {std::tuple{2.5, 1, "3.5"}, std::tuple{0.1, 2, "2.1"}, std::tuple{1e17, 0, "100000000000000000"}}) {
        SCOPED_TRACE(name);
        const std::string key = std::string("max-") + name;
        ASSERT_EQ(zadd(key, max, "x"), KV_SUCCESS);
        ASSERT_EQ(kv_zaddmaxinc(client_, key.data(), key.size(), increment, 0), KV_SUCCESS);
        Strings got = range(key, 0, -1).members, want = {name, "x"};
        std::sort(got.begin(), got.end());
        std::sort(want.begin(), want.end());
        EXPECT_EQ(got, want);
    }
    // Naming an existing member: it takes the score and loses its value.
    ASSERT_EQ(zaddval("own", 1, "one", "v1"), KV_SUCCESS);
    ASSERT_EQ(zaddval("own", 7, "7", "seven"), KV_SUCCESS);
    EXPECT_EQ(kv_zaddmaxinc(client_, "own", 3, 0, 0), KV_ALREADY_EXISTS);
    EXPECT_TRUE(score_of("own", "7").found());
    EXPECT_EQ(score_of("own", "7").value, std::nullopt);
    EXPECT_EQ(score_of("own", "one").value, "v1");
}

TEST_F(Writes, LargeBatchWithValuesRoundTrips) {
    const int n = 5000;
    Strings names, values;
    std::vector<double> scores;
    std::vector<const char*> mp, vp;
    std::vector<size_t> ml, vl;
    for (int i = 0; i < n; ++i) {
        names.push_back("m" + std::string(5 - std::to_string(i).size(), '0') + std::to_string(i));
        values.push_back("value-" + std::to_string(i) + std::string(i % 7, '\0'));
        scores.push_back(i * 0.5);
    }
    for (int i = 0; i < n; ++i) {
        mp.push_back(names[i].data()), ml.push_back(names[i].size());
        vp.push_back(values[i].data()), vl.push_back(values[i].size());
    }
    ASSERT_EQ(kv_zmaddval(client_, "big", 3, scores.data(), mp.data(), n, ml.data(), vp.data(), vl.data(), 0),
              KV_SUCCESS);
    EXPECT_EQ(card("big"), uint32_t(n));
    Range all = range("big", 0, -1);
    ASSERT_EQ(all.members.size(), size_t(n));
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(all.members[i], names[i]);
        ASSERT_EQ(all.scores[i], scores[i]);
        ASSERT_EQ(all.values[i], values[i]);
    }
    Range tail = by_score("big", 0, kInf, ZSET_WITH_LIMIT, n - 10, 100);
    ASSERT_EQ(tail.members.size(), 10u);
    EXPECT_EQ(tail.members.front(), names[n - 10]);
    EXPECT_EQ(redis({"HLEN", "kv{big}:v"}), std::to_string(n));
    uint32_t removed = 0;
    EXPECT_EQ(kv_zmrem(client_, "big", 3, mp.data(), n, ml.data(), &removed), KV_SUCCESS);
    EXPECT_EQ(removed, uint32_t(n));
    EXPECT_EQ(redis({"EXISTS", "kv{big}", "kv{big}:v"}), "0");
}

TEST_F(Writes, AddWithDriftRestartsOrMovesTheHolder) {
    // The status and the name handed back ("" for none), released.
    auto dis = [&](double score, const std::string& member, int32_t ttl = 0) {
        char junk = 0;
        char* kept = &junk;
        int32_t status = kv_zadddis(client_, "dr", 2, score, member.data(), member.size(), 5, &kept, ttl);
        std::string name = kept != nullptr ? kept : "";
        mm_->release(kept);
        return std::pair{status, name};
    };
    EXPECT_EQ(dis(10, "a", 100), std::pair(KV_SUCCESS, std::string()));  // empty set: in it goes
    ASSERT_EQ(zaddval("dr", 10, "b", "vb"), KV_SUCCESS);
    ASSERT_EQ(zaddval("dr", 1, "low", "vl"), KV_SUCCESS);

    // Within the drift the holder of the highest score (of ties, the last in byte order) moves.
    EXPECT_EQ(dis(13, "c"), std::pair(KV_SUCCESS, std::string("b")));
    EXPECT_EQ(score_of("dr", "b").score, 13);
    EXPECT_EQ(score_of("dr", "b").value, std::nullopt);
    EXPECT_EQ(score_of("dr", "c").status, KV_NO_SET_KEY);
    EXPECT_EQ(score_of("dr", "a").score, 10);
    // Exactly at the drift counts as within; so does a lower score.
    EXPECT_EQ(dis(18, "d"), std::pair(KV_SUCCESS, std::string("b")));
    EXPECT_EQ(dis(3, "d"), std::pair(KV_SUCCESS, std::string("b")));
    EXPECT_EQ(range("dr", 0, -1).members, (Strings{"low", "b", "a"}));

    // Beyond the drift everything else goes, values too; the expiry stays.
    EXPECT_EQ(dis(100, "low"), std::pair(KV_ALREADY_EXISTS, std::string()));
    Range left = range("dr", 0, -1);
    EXPECT_EQ(left.members, Strings{"low"});
    EXPECT_EQ(left.scores, std::vector<double>{100});
    EXPECT_EQ(redis({"EXISTS", "kv{dr}:v"}), "0");
    int32_t ttl = 0;
    EXPECT_EQ(ttl_of("dr", &ttl), KV_SUCCESS);
    EXPECT_TRUE(ttl == 100 || ttl == 99) << ttl;
    EXPECT_EQ(dis(200, "new"), std::pair(KV_SUCCESS, std::string()));
    EXPECT_EQ(range("dr", 0, -1).members, Strings{"new"});
    EXPECT_EQ(kv_zadddis(client_, "dr", 2, 1, "x", 1, 5, nullptr, 0), KV_INVALID_PARAMETER);
}

TEST_F(Writes, ScoresSurviveTheServerExactly) {
    const std::vector<double> awkward = {-kInf, -DBL_MAX, -5e-324, 0.0, 5e-324, DBL_MIN, 1e-300,
                                         0.1, 1.0 / 3, 123456789.123456789, DBL_MAX, kInf};
    for (size_t i = 0; i < awkward.size(); ++i) {
        ASSERT_EQ(zadd("exact", awkward[i], "s" + std::to_string(i)), KV_SUCCESS);
        const double got = score_of("exact", "s" + std::to_string(i)).score;
        EXPECT_TRUE(same_bits(got, awkward[i])) << awkward[i] << " came back as " << got;
    }
    Range all = by_score("exact", -kInf, kInf);
    ASSERT_EQ(all.scores.size(), awkward.size());
    for (size_t i = 0; i < awkward.size(); ++i) EXPECT_TRUE(same_bits(all.scores[i], awkward[i])) << i;
    // Negative zero comes back as a score equal to zero (the server may drop its sign).
    ASSERT_EQ(zadd("exact", -0.0, "negzero"), KV_SUCCESS);
    EXPECT_EQ(score_of("exact", "negzero").score, 0.0);

    double score = 42;
    ASSERT_EQ(kv_zincrby(client_, "incr", 4, "m", 1, 2.3, &score, 0), KV_SUCCESS);  // from 0
    EXPECT_EQ(score, 2.3);
    ASSERT_EQ(kv_zincrby(client_, "incr", 4, "m", 1, 1.8, &score, 0), KV_SUCCESS);
    ASSERT_EQ(kv_zincrby(client_, "incr", 4, "m", 1, -4, &score, 0), KV_SUCCESS);
    EXPECT_TRUE(same_bits(score, 0.09999999999999964)) << score;
    EXPECT_TRUE(same_bits(score_of("incr", "m").score, 2.3 + 1.8 - 4));
    // A sum that is not a number is refused and changes nothing.
    ASSERT_EQ(zadd("incr", kInf, "top"), KV_SUCCESS);
    EXPECT_EQ(kv_zincrby(client_, "incr", 4, "top", 3, -kInf, &score, 0), KV_INVALID_PARAMETER);
    EXPECT_EQ(score, 0);
    EXPECT_EQ(score_of("incr", "top").score, kInf);

    // NaN never reaches the server.
    const double nan_batch[] = {1, kNaN};
    const char* members[] = {"a", "b"};
    const size_t lens[] = {1, 1};
    char* kept = nullptr;
    uint32_t n = 0;
    EXPECT_EQ(zadd("nan", kNaN, "a"), KV_INVALID_PARAMETER);
    EXPECT_EQ(zaddval("nan", kNaN, "a", "v"), KV_INVALID_PARAMETER);
    EXPECT_EQ(kv_zmadd(client_, "nan", 3, nan_batch, members, 2, lens, 0), KV_INVALID_PARAMETER);
    EXPECT_EQ(kv_zaddvalmax(client_, "nan", 3, "a", 1, "v", 1, kNaN, 0), KV_INVALID_PARAMETER);
    EXPECT_EQ(kv_zadddis(client_, "nan", 3, kNaN, "a", 1, 1, &kept, 0), KV_INVALID_PARAMETER);
    EXPECT_EQ(kv_zadddis(client_, "nan", 3, 1, "a", 1, kNaN, &kept, 0), KV_INVALID_PARAMETER);
    EXPECT_EQ(kv_zincrby(client_, "nan", 3, "a", 1, kNaN, &score, 0), KV_INVALID_PARAMETER);
    EXPECT_EQ(kv_zcount(client_, "exact", 5, kNaN, 1, &n), KV_INVALID_PARAMETER);
    EXPECT_EQ(redis({"EXISTS", "kv{nan}"}), "0");
}

}  // namespace
}  // namespace kelvane_test
