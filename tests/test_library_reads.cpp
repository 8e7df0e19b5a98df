// Reads and removals: range edges, binary data, result buffers, values that go with their members, a values hash
// of another kind, and where keys live on the server.
#include <functional>
#include <tuple>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using Reads = LibraryTest;
using Removals = LibraryTest;
using KeyLayout = LibraryTest;

TEST_F(Reads, RangeEdgesOrderAndEmptyResults) {
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
    EXPECT_EQ(by_score("t", 1, 2, ZSET_REVERSE).members, Strings(reversed.begin(), reversed.end() - 1));
    EXPECT_EQ(by_score("t", 1, 1, ZSET_REVERSE | ZSET_WITH_LIMIT, 1, 2).members, (Strings{"b", "ab"}));
    EXPECT_EQ(by_score("t", 1, 2, ZSET_WITH_LIMIT, 4, -1).members, (Strings{"b", "\xff", "last"}));
    EXPECT_EQ(by_score("t", 1, 1, ZSET_WITH_LIMIT, 5, 100).members, Strings{"\xff"});
    for (const Range& empty : {range("t", 8, 20), range("t", 3, 2), range("t", -100, -50), by_score("t", 5, 9),
                               by_score("t", 2, 1), by_score("t", -kInf, kInf, ZSET_WITH_LIMIT, 8, 10)}) {
        EXPECT_EQ(empty.status, KV_SUCCESS);
        EXPECT_TRUE(empty.members.empty());
    }
    for (const auto& [min, max, expected] : {std::tuple{-kInf, kInf, 8u}, std::tuple{1.0, 1.0, 6u},
                                             std::tuple{3.0, 1.0, 0u}}) {
        uint32_t n = 99;
        EXPECT_EQ(kv_zcount(client_, "t", 1, min, max, &n), KV_SUCCESS);
        EXPECT_EQ(n, expected) << min << ".." << max;
    }
}

TEST_F(Reads, BinaryMembersValuesAndSuffixes) {
    const std::string member("k\0e\0y", 5), value("\0v\0", 3), suffix("/\0s", 3);
    ASSERT_EQ(zaddval("bin", 1, member, value), KV_SUCCESS);
    ASSERT_EQ(zadd("bin", 2, "plain"), KV_SUCCESS);
    EXPECT_EQ(score_of("bin", member).value, value);
    Range r = range("bin", 0, -1);
    EXPECT_EQ(r.members, (Strings{member, "plain"}));
    EXPECT_EQ(r.values, (Values{value, std::nullopt}));
    const char* s = suffix.data();
    for (const Range& w : {read([&](RangeOut& o) {
                               return kv_zrange_whole(client_, "bin", 3, 0, -1, &o.m, &o.n, &o.ml, s, 3, kAll, &o.s,
                                                      &o.v, &o.vl); }),
                           read([&](RangeOut& o) {
                               return kv_zrangebyscore_whole(client_, "bin", 3, -kInf, kInf, &o.m, &o.n, &o.ml, s, 3,
                                                             kAll, &o.s, &o.v, &o.vl); })}) {
        EXPECT_EQ(w.members, (Strings{member + suffix, "plain" + suffix}));
        EXPECT_EQ(w.values, (Values{value + suffix, std::nullopt}));
    }
    char* text = voidtostring(member.data(), member.size(), mm_);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text, member.size() + 1), member + '\0');
    mm_->release(text);
    text = voidtostring(nullptr, 0, mm_);
    EXPECT_STREQ(text, "");
    mm_->release(text);
    EXPECT_EQ(voidtostring(nullptr, 3, mm_), nullptr);
    EXPECT_EQ(voidtostring("abc", 3, nullptr), nullptr);
}

TEST_F(Reads, EveryResultBufferIsCountedAndTheByteLimitHolds) {
    ASSERT_EQ(zaddval("acc", 1, "a", "va"), KV_SUCCESS);
    ASSERT_EQ(zadd("acc", 2, "b"), KV_SUCCESS);
    ASSERT_EQ(zaddval("acc", 3, "c", "vc"), KV_SUCCESS);
    RangeOut o;
    ASSERT_EQ(kv_zrange(client_, "acc", 3, 0, -1, &o.m, &o.n, &o.ml, kAll, &o.s, &o.v, &o.vl), KV_SUCCESS);
    EXPECT_EQ(mm_->live_count(mm_), 10u);  // three members, two values, five arrays
    take(KV_SUCCESS, o);

    // Under a byte limit a large read fails whole and leaves nothing behind.
    kv_mm* small = kv_mm_create(nullptr, nullptr, nullptr, 4096);
    ASSERT_NE(small, nullptr);
    kv_client* client = kv_client_create(1, 2, small, 2);
    ASSERT_EQ(kv_server_add(client, "127.0.0.1", server_->port(), nullptr), KV_SUCCESS);
    for (int i = 0; i < 100; ++i) {  // the arrays fit under the limit, the items do not
        ASSERT_EQ(zaddval("wide", i, "member-" + std::to_string(i) + std::string(30, '.'), "v"), KV_SUCCESS);
    }
    ASSERT_EQ(zaddval("wide", 1000, "huge", std::string(5000, 'h')), KV_SUCCESS);
    RangeOut big;
    EXPECT_EQ(kv_zrange(client, "wide", 4, 0, -1, &big.m, &big.n, &big.ml, ZSET_WITH_VALUES, &big.v, &big.vl),
              KV_NO_MEMORY);
    EXPECT_TRUE(!big.m && big.n == 0 && !big.ml && !big.v && !big.vl);
    double score = 5;
    char* value = nullptr;
    size_t len = 9;
    EXPECT_EQ(kv_zscore(client, "wide", 4, "huge", 4, &score, &value, &len), KV_NO_MEMORY);
    EXPECT_TRUE(score == 0 && value == nullptr && len == 0);
    EXPECT_EQ(small->live_count(small), 0u);
    // A read that fits still works, and the limit counts only what is out.
    ASSERT_EQ(kv_zscore(client, "acc", 3, "a", 1, &score, &value, &len), KV_SUCCESS);
    EXPECT_EQ(small->allocate(small, 4096), nullptr);
    small->release(value);
    void* whole = small->allocate(small, 4096);
    EXPECT_NE(whole, nullptr);
    small->release(whole);
    kv_client_destroy(client);
    kv_mm_destroy(small);
}

TEST_F(Removals, ValuesGoWithTheirMembersAndTheLastMemberTakesBothKeys) {
    const char* const names[] = {"a", "b", "c"};
    const size_t lens[] = {1, 1, 1};
    // Each way removes "a" alone, or all the rest ("b" has a value, "c" none).
    using Remove = std::function<int32_t(bool rest, uint32_t* removed)>;
    const std::vector<std::pair<const char*, Remove>> ways = {
        {"zrem", [&](bool rest, uint32_t* removed) {
             *removed = 0;
             for (int i = rest; i < (rest ? 3 : 1); ++i) *removed += kv_zrem(client_, "z", 1, names[i], 1) == KV_SUCCESS;
             return KV_SUCCESS; }},
        {"zmrem", [&](bool rest, uint32_t* removed) { return kv_zmrem(client_, "z", 1, names + rest, rest ? 2 : 1, lens, removed); }},
        {"zremrangebyscore", [&](bool rest, uint32_t* removed) {
             return kv_zremrangebyscore(client_, "z", 1, rest ? -kInf : 1, rest ? kInf : 1, removed); }},
        {"zremrangebyrank", [&](bool rest, uint32_t* removed) { return kv_zremrangebyrank(client_, "z", 1, 0, rest ? 100 : 0, removed); }},
    };
    for (const auto& [way, remove] : ways) {
        SCOPED_TRACE(way);
        uint32_t removed = 9;
        ASSERT_EQ(zaddval("z", 1, "a", "va"), KV_SUCCESS);
        ASSERT_EQ(zaddval("z", 2, "b", "vb"), KV_SUCCESS);
        ASSERT_EQ(zadd("z", 3, "c"), KV_SUCCESS);
        EXPECT_EQ(remove(false, &removed), KV_SUCCESS);
        EXPECT_EQ(removed, 1u);
        EXPECT_EQ(redis({"HKEYS", "kv{z}:v"}), "b");
        ASSERT_EQ(zadd("z", 1, "a"), KV_SUCCESS);  // back, without its old value
        EXPECT_EQ(score_of("z", "a").value, std::nullopt);
        EXPECT_EQ(remove(false, &removed), KV_SUCCESS);
        EXPECT_EQ(remove(true, &removed), KV_SUCCESS);
        EXPECT_EQ(removed, 2u);
        EXPECT_EQ(redis({"EXISTS", "kv{z}", "kv{z}:v"}), "0");
    }
}

TEST_F(Removals, AValuesHashOfAnotherKindStopsThemAndEveryReadOfValues) {
    ASSERT_EQ(zaddval("f", 1, "a", "va"), KV_SUCCESS);
    ASSERT_EQ(zadd("f", 2, "b"), KV_SUCCESS);
    redis({"DEL", "kv{f}:v"});
    redis({"SET", "kv{f}:v", "foreign"});
    // Reads that need no value still work.
    uint32_t n = 0;
    EXPECT_EQ(kv_zcount(client_, "f", 1, -kInf, kInf, &n), KV_SUCCESS);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(kv_zrank(client_, "f", 1, "b", 1, &n, 0), KV_SUCCESS);
    EXPECT_EQ(n, 1u);
    Range bare = read([&](RangeOut& o) {
        o.s = nullptr, o.v = nullptr, o.vl = nullptr;
        return kv_zrange(client_, "f", 1, 0, -1, &o.m, &o.n, &o.ml, 0);
    });
    EXPECT_EQ(bare.members, (Strings{"a", "b"}));
    char* value = reinterpret_cast<char*>(RangeOut::junk);
    size_t len = 5;
    EXPECT_EQ(kv_zrank(client_, "f", 1, "a", 1, &n, ZSET_WITH_VALUES, &value, &len), KV_WRONG_REPLY);
    EXPECT_TRUE(value == nullptr && len == 0);
    uint32_t removed[3] = {9, 9, 9};
    const char* const both[] = {"a", "b"};
    const size_t ones[] = {1, 1};
    for (int32_t status : {score_of("f", "a").status, range("f", 0, -1).status, by_score("f", 0, 9).status,
                           kv_zrem(client_, "f", 1, "a", 1), kv_zmrem(client_, "f", 1, both, 2, ones, &removed[0]),
                           kv_zremrangebyscore(client_, "f", 1, -kInf, kInf, &removed[1]),
                           kv_zremrangebyrank(client_, "f", 1, 0, 0, &removed[2])}) {
        EXPECT_EQ(status, KV_WRONG_REPLY);
    }
    EXPECT_TRUE(removed[0] == 0 && removed[1] == 0 && removed[2] == 0);
    EXPECT_EQ(redis({"ZRANGE", "kv{f}", "0", "-1", "WITHSCORES"}), "a,1,b,2");
    EXPECT_EQ(redis({"GET", "kv{f}:v"}), "foreign");
}

TEST_F(KeyLayout, BracesPercentZeroBytesAndTheEmptyKeyStayApart) {
    // Both server keys of a key carry its encoded name as their hash tag, so they share a cluster slot.
    const std::vector<std::pair<std::string, std::string>> layout = {
        {"a", "kv{a}"}, {"{a}", "kv{%7Ba%7D}"}, {"%7Ba%7D", "kv{%257Ba%257D}"}, {"", "kv{%}"}, {"%", "kv{%25}"},
        {"}", "kv{%7D}"}, {"{", "kv{%7B}"}, {std::string("a\0", 2), std::string("kv{a\0}", 6)},
        {std::string("\0", 1), std::string("kv{\0}", 5)}, {"{}", "kv{%7B%7D}"}, {"kv{a}", "kv{kv%7Ba%7D}"}};
    for (size_t i = 0; i < layout.size(); ++i) {
        ASSERT_EQ(zaddval(layout[i].first, double(i), "m" + std::to_string(i), "v" + std::to_string(i)), KV_SUCCESS);
    }
    for (size_t i = 0; i < layout.size(); ++i) {
        const auto& [key, main] = layout[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(range(key, 0, -1).values, Values{"v" + std::to_string(i)});
        EXPECT_EQ(redis({"ZRANGE", main, "0", "-1"}), "m" + std::to_string(i));
        EXPECT_EQ(redis({"HGET", main + ":v", "m" + std::to_string(i)}), "v" + std::to_string(i));
    }
    EXPECT_EQ(redis({"DBSIZE"}), std::to_string(2 * layout.size()));
    for (const auto& [key, main] : layout) EXPECT_EQ(kv_del(client_, key.data(), key.size()), KV_SUCCESS);
    EXPECT_EQ(redis({"DBSIZE"}), "0");
    int32_t t = 7;
    EXPECT_EQ(kv_del(client_, "a", 1), KV_NOTFOUND);
    EXPECT_EQ(kv_get_ttl(client_, "a", 1, &t), KV_NOTFOUND);
    EXPECT_EQ(t, 0);
}

}  // namespace
}  // namespace kelvane_test
