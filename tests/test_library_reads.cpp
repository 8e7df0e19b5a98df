// Sorted-set reads: point reads, counts, range edges, binary data, and the
// buffers every result is handed out in.
#include <cstring>
#include <limits>
#include <tuple>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using Reads = LibraryTest;
using Strings = std::vector<std::string>;
const double kInf = std::numeric_limits<double>::infinity();

TEST_F(Reads, PointReadsAndCounts) {
    ASSERT_EQ(zadd("r", 1, "a"), KV_SUCCESS);
    ASSERT_EQ(zaddval("r", 2, "b", "vb"), KV_SUCCESS);
    ASSERT_EQ(zadd("r", 3, "c"), KV_SUCCESS);
    EXPECT_EQ(score_of("r", "b").value, "vb");
    EXPECT_EQ(score_of("r", "a").value, std::nullopt);

    // Misses overwrite whatever the caller left in the out-parameters.
    char junk = 0;
    for (const auto& [key, member, expected] :
         {std::tuple{"none", "a", KV_NOTFOUND}, std::tuple{"r", "z", KV_NO_SET_KEY}}) {
        double score = 42;
        char* value = &junk;
        size_t len = 7;
        uint32_t rank = 9;
        EXPECT_EQ(kv_zscore(client_, key, std::strlen(key), member, 1, &score, &value, &len), expected);
        EXPECT_TRUE(score == 0 && value == nullptr && len == 0);
        value = &junk;
        EXPECT_EQ(kv_zrank(client_, key, std::strlen(key), member, 1, &rank, ZSET_WITH_VALUES, &value, &len), expected);
        EXPECT_TRUE(rank == 0 && value == nullptr);
    }

    // Ranks, from either end, with or without the value.
    auto rank_of = [&](const char* member, int32_t flags) {
        uint32_t rank = 99;
        char* value = nullptr;
        size_t len = 0;
        int32_t status = (flags & ZSET_WITH_VALUES)
            ? kv_zrank(client_, "r", 1, member, 1, &rank, flags, &value, &len)
            : kv_zrank(client_, "r", 1, member, 1, &rank, flags);
        EXPECT_EQ(status, KV_SUCCESS);
        std::string text = value != nullptr ? std::string(value, len) : "(none)";
        mm_->release(value);
        return std::pair{rank, text};
    };
    EXPECT_EQ(rank_of("c", ZSET_DEFAULT).first, 2u);
    EXPECT_EQ(rank_of("c", ZSET_REVERSE).first, 0u);
    EXPECT_EQ(rank_of("b", ZSET_WITH_VALUES), std::pair(1u, std::string("vb")));
    EXPECT_EQ(rank_of("a", ZSET_WITH_VALUES | ZSET_REVERSE), std::pair(2u, std::string("(none)")));
    // A limit makes no sense for a rank: refused before any optional argument is read.
    uint32_t rank = 9;
    EXPECT_EQ(kv_zrank(client_, "r", 1, "a", 1, &rank, ZSET_WITH_LIMIT), KV_INVALID_PARAMETER);
    EXPECT_EQ(kv_zrank(client_, "r", 1, "a", 1, &rank, ZSET_WITH_LIMIT | ZSET_WITH_VALUES), KV_INVALID_PARAMETER);
    EXPECT_EQ(rank, 0u);

    // Counts: inclusive bounds, 0 for an absent key.
    for (const auto& [key, min, max, expected] :
         {std::tuple{"r", 1.0, 2.0, 2u}, std::tuple{"r", 3.0, 3.0, 1u}, std::tuple{"r", -kInf, kInf, 3u},
          std::tuple{"r", 3.0, 1.0, 0u}, std::tuple{"none", -kInf, kInf, 0u}}) {
        uint32_t n = 99;
        EXPECT_EQ(kv_zcount(client_, key, std::strlen(key), min, max, &n), KV_SUCCESS);
        EXPECT_EQ(n, expected) << min << ".." << max;
    }
    EXPECT_EQ(card("none"), 0u);
    EXPECT_EQ(card("r"), 3u);
}

TEST_F(Reads, RangeEdgesAndOrder) {
    // Ties are ordered by the bytes of the names, unsigned.
    for (const std::string& m : Strings{"b", "A", "\xff", std::string("a\0b", 3), "ab", "a"}) {
        ASSERT_EQ(zadd("t", 1, m), KV_SUCCESS);
    }
    ASSERT_EQ(zadd("t", 0, "first"), KV_SUCCESS);
    ASSERT_EQ(zadd("t", 2, "last"), KV_SUCCESS);
    const Strings order = {"first", "A", "a", std::string("a\0b", 3), "ab", "b", "\xff", "last"};
    const Strings reversed(order.rbegin(), order.rend());
    EXPECT_EQ(range("t", 0, -1).members, order);
    EXPECT_EQ(range("t", -100, 100).members, order);
    EXPECT_EQ(by_score("t", -kInf, kInf).members, order);
    EXPECT_EQ(range("t", -2, -1).members, (Strings{"\xff", "last"}));
    EXPECT_EQ(range("t", 6, 7).scores, (std::vector<double>{1, 2}));
    EXPECT_EQ(range("t", 0, -1, ZSET_REVERSE).members, reversed);
    EXPECT_EQ(by_score("t", 1, 2, ZSET_REVERSE).members, Strings(reversed.begin(), reversed.end() - 1));
    EXPECT_EQ(by_score("t", 1, 1, ZSET_REVERSE | ZSET_WITH_LIMIT, 1, 2).members, (Strings{"b", "ab"}));
    EXPECT_EQ(by_score("t", 1, 2, ZSET_WITH_LIMIT, 4, -1).members, (Strings{"b", "\xff", "last"}));
    EXPECT_EQ(by_score("t", 1, 1, ZSET_WITH_LIMIT, 5, 100).members, Strings{"\xff"});

    // Empty selections succeed with nothing allocated.
    for (const Range& empty : {range("t", 8, 20), range("t", 3, 2), range("t", -100, -50), by_score("t", 5, 9),
                               by_score("t", 2, 1), by_score("t", -kInf, kInf, ZSET_WITH_LIMIT, 8, 10)}) {
        EXPECT_EQ(empty.status, KV_SUCCESS);
        EXPECT_TRUE(empty.members.empty());
    }
    void** m = nullptr; size_t n = 0; size_t* ml = nullptr;
    EXPECT_EQ(kv_zrange(client_, "t", 1, 0, -1, &m, &n, &ml, ZSET_WITH_LIMIT, 0, 10), KV_INVALID_PARAMETER);

    // An absent key: KV_NOTFOUND, every output cleared.
    char junk = 0;
    for (int variant = 0; variant < 4; ++variant) {
        SCOPED_TRACE(variant);
        m = reinterpret_cast<void**>(&junk), n = 9, ml = reinterpret_cast<size_t*>(&junk);
        double* s = reinterpret_cast<double*>(&junk); void** v = m; size_t* vl = ml;
        const int32_t f = ZSET_WITH_SCORES | ZSET_WITH_VALUES;
        int32_t status =
            variant == 0 ? kv_zrange(client_, "no", 2, 0, -1, &m, &n, &ml, f, &s, &v, &vl)
            : variant == 1 ? kv_zrangebyscore(client_, "no", 2, -kInf, kInf, &m, &n, &ml, f, &s, &v, &vl)
            : variant == 2 ? kv_zrange_whole(client_, "no", 2, 0, -1, &m, &n, &ml, "x", 1, f, &s, &v, &vl)
                           : kv_zrangebyscore_whole(client_, "no", 2, 0, 1, &m, &n, &ml, "x", 1, f, &s, &v, &vl);
        EXPECT_EQ(status, KV_NOTFOUND);
        EXPECT_TRUE(!m && n == 0 && !ml && !s && !v && !vl);
    }
}

TEST_F(Reads, BinaryMembersValuesAndSuffixes) {
    const std::string member("k\0e\0y", 5), value("\0v\0", 3), suffix("/\0s", 3);
    ASSERT_EQ(zaddval("bin", 1, member, value), KV_SUCCESS);
    ASSERT_EQ(zadd("bin", 2, "plain"), KV_SUCCESS);
    EXPECT_EQ(score_of("bin", member).value, value);
    Range r = range("bin", 0, -1);
    EXPECT_EQ(r.members, (Strings{member, "plain"}));
    EXPECT_EQ(r.values, (std::vector<std::optional<std::string>>{value, std::nullopt}));

    // _whole appends the suffix to members and to the values that exist.
    for (bool by_rank : {true, false}) {
        SCOPED_TRACE(by_rank);
        void** m = nullptr; size_t n = 0; size_t* ml = nullptr; double* s = nullptr; void** v = nullptr; size_t* vl = nullptr;
        const int32_t f = ZSET_WITH_SCORES | ZSET_WITH_VALUES;
        int32_t status = by_rank
            ? kv_zrange_whole(client_, "bin", 3, 0, -1, &m, &n, &ml, suffix.data(), suffix.size(), f, &s, &v, &vl)
            : kv_zrangebyscore_whole(client_, "bin", 3, -kInf, kInf, &m, &n, &ml, suffix.data(), suffix.size(), f,
                                     &s, &v, &vl);
        Range w = take(status, m, n, ml, s, v, vl);
        ASSERT_EQ(w.status, KV_SUCCESS);
        EXPECT_EQ(w.members, (Strings{member + suffix, "plain" + suffix}));
        EXPECT_EQ(w.scores, (std::vector<double>{1, 2}));
        EXPECT_EQ(w.values, (std::vector<std::optional<std::string>>{value + suffix, std::nullopt}));
    }

    // voidtostring: a NUL-terminated copy; NULL when there is nothing to copy from.
    char* text = voidtostring(member.data(), member.size(), mm_);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text, member.size() + 1), member + '\0');
    mm_->release(text);
    text = voidtostring(nullptr, 0, mm_);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text[0], '\0');
    mm_->release(text);
    EXPECT_EQ(voidtostring(nullptr, 3, mm_), nullptr);
    EXPECT_EQ(voidtostring("abc", 3, nullptr), nullptr);
}

TEST_F(Reads, EveryResultBufferIsCountedAndTheByteLimitHolds) {
    ASSERT_EQ(zaddval("acc", 1, "a", "va"), KV_SUCCESS);
    ASSERT_EQ(zadd("acc", 2, "b"), KV_SUCCESS);
    ASSERT_EQ(zaddval("acc", 3, "c", "vc"), KV_SUCCESS);
    void** m = nullptr; size_t n = 0; size_t* ml = nullptr; double* s = nullptr; void** v = nullptr; size_t* vl = nullptr;
    const int32_t f = ZSET_WITH_SCORES | ZSET_WITH_VALUES;
    ASSERT_EQ(kv_zrange(client_, "acc", 3, 0, -1, &m, &n, &ml, f, &s, &v, &vl), KV_SUCCESS);
    EXPECT_EQ(mm_->live_count(mm_), 10u);  // three members, two values, five arrays
    take(KV_SUCCESS, m, n, ml, s, v, vl);
    EXPECT_EQ(mm_->live_count(mm_), 0u);

    // Under a byte limit a large read fails whole and leaves nothing behind.
    kv_mm* small = kv_mm_create(nullptr, nullptr, nullptr, 4096);
    ASSERT_NE(small, nullptr);
    kv_client* client = kv_client_create(1, 2, small, 2);
    ASSERT_EQ(kv_server_add(client, "127.0.0.1", server_->port(), nullptr), KV_SUCCESS);
    for (int i = 0; i < 100; ++i) {  // the arrays fit under the limit, the items do not
        ASSERT_EQ(zaddval("wide", i, "member-" + std::to_string(i) + std::string(30, '.'), "v"), KV_SUCCESS);
    }
    ASSERT_EQ(zaddval("wide", 1000, "huge", std::string(5000, 'h')), KV_SUCCESS);
    char junk = 0;
    m = v = reinterpret_cast<void**>(&junk), n = 9, ml = vl = reinterpret_cast<size_t*>(&junk);
    EXPECT_EQ(kv_zrange(client, "wide", 4, 0, -1, &m, &n, &ml, ZSET_WITH_VALUES, &v, &vl), KV_NO_MEMORY);
    EXPECT_TRUE(!m && n == 0 && !ml && !v && !vl);
    EXPECT_EQ(kv_zrangebyscore_whole(client, "wide", 4, 0, 1000, &m, &n, &ml, "/", 1, ZSET_DEFAULT), KV_NO_MEMORY);
    EXPECT_EQ(small->live_count(small), 0u);
    double score = 5;
    char* value = &junk;
    size_t len = 9;
    EXPECT_EQ(kv_zscore(client, "wide", 4, "huge", 4, &score, &value, &len), KV_NO_MEMORY);
    EXPECT_TRUE(score == 0 && value == nullptr && len == 0);
    EXPECT_EQ(small->live_count(small), 0u);
    // A read that fits still works, and the limit counts only what is out.
    ASSERT_EQ(kv_zrange(client, "wide", 4, 0, 1, &m, &n, &ml, ZSET_DEFAULT), KV_SUCCESS);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(small->allocate(small, 4096), nullptr);
    for (void* p : {m[0], m[1], static_cast<void*>(m), static_cast<void*>(ml)}) small->release(p);
    EXPECT_EQ(small->live_count(small), 0u);
    void* whole = small->allocate(small, 4096);
    EXPECT_NE(whole, nullptr);
    small->release(whole);
    kv_client_destroy(client);
    kv_mm_destroy(small);
}

}  // namespace
}  // namespace kelvane_test
