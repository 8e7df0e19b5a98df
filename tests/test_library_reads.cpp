// Results and keys beyond what the random-operation model tries: every result buffer counted and the manager's
// byte limit, batches past the server functions' unpack limit, and the server key names that keys make.
#include "library_fixture.h"

namespace kelvane_test {
namespace {

using Reads = LibraryTest;
using KeyLayout = LibraryTest;

TEST_F(Reads, EveryResultBufferIsCountedAndTheByteLimitHolds) {
    ASSERT_EQ(zaddval("acc", 1, "a", "va"), KV_SUCCESS);
    ASSERT_EQ(zadd("acc", 2, "b"), KV_SUCCESS);
    ASSERT_EQ(zaddval("acc", 3, "c", "vc"), KV_SUCCESS);
    const Range r = read([&](RangeOut& o) {
        const int32_t status = kv_zrange(client_, "acc", 3, 0, -1, &o.m, &o.n, &o.ml, kAll, &o.s, &o.v, &o.vl);
        EXPECT_EQ(mm_->live_count(mm_), 10u);  // three members, two values, five arrays
        return status;
    });
    EXPECT_EQ(r.status, KV_SUCCESS);

    // Under a byte limit a large read fails whole and leaves nothing behind.
    kv_mm* small = kv_mm_create(nullptr, nullptr, nullptr, 4096);
    ASSERT_NE(small, nullptr);
    kv_client* client = kv_client_create(1, 2, small, 2);
    ASSERT_EQ(kv_server_add(client, "127.0.0.1", server_->port(), nullptr), KV_SUCCESS);
    for (int i = 0; i < 100; ++i) {  // the members fit under the limit; the values run out past it
        ASSERT_EQ(zaddval("wide", i, "m" + std::to_string(i), "v"), KV_SUCCESS);
    }
    ASSERT_EQ(zaddval("wide", 1000, "huge", std::string(5000, 'h')), KV_SUCCESS);
    RangeOut big;
    EXPECT_EQ(kv_zrange(client, "wide", 4, 0, -1, &big.m, &big.n, &big.ml, ZSET_WITH_VALUES, &big.v, &big.vl),
              KV_NO_MEMORY);
    EXPECT_TRUE(!big.m && big.n == 0 && !big.ml && !big.v && !big.vl);
    EXPECT_EQ(zscore_status(client, "wide", "huge"), KV_NO_MEMORY);
    EXPECT_EQ(small->live_count(small), 0u);
    // A read that fits still works, and the limit counts only what is out.
    double score = 5;
    char* value = nullptr;
    size_t len = 9;
    ASSERT_EQ(kv_zscore(client, "acc", 3, "a", 1, &score, &value, &len), KV_SUCCESS);
    EXPECT_EQ(small->allocate(small, 4096), nullptr);
    small->release(value);
    void* whole = small->allocate(small, 4096);
    EXPECT_NE(whole, nullptr);
    small->release(whole);
    kv_client_destroy(client);
    kv_mm_destroy(small);
}

// The server functions take long lists in slices (Lua's unpack() stops near 8000 values).
TEST_F(Reads, BatchesOfThousandsWithValuesRoundTrip) {
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
    const Range all = range("big", 0, -1);
    ASSERT_EQ(all.members, names);
    EXPECT_EQ(all.scores, scores);
    EXPECT_EQ(all.values, Values(values.begin(), values.end()));
    uint32_t removed = 0;
    EXPECT_EQ(kv_zremrangebyrank(client_, "big", 3, 0, n - 501, &removed), KV_SUCCESS);
    EXPECT_EQ(removed, uint32_t(n - 500));
    EXPECT_EQ(redis({"HLEN", "kv{big}:v"}), "500");
    EXPECT_EQ(kv_zmrem(client_, "big", 3, mp.data(), n, ml.data(), &removed), KV_SUCCESS);
    EXPECT_EQ(removed, 500u);
    EXPECT_EQ(redis({"EXISTS", "kv{big}", "kv{big}:v"}), "0");
}

// Both server keys of a key carry its encoded name as their hash tag, so they share a cluster slot, and the
// encoding keeps braces, '%', zero bytes and the empty key apart. (The model test uses such keys, members, values
// and suffixes in every operation; only here are the names the server sees spelled out.)
TEST_F(KeyLayout, ServerKeyNamesCarryTheEncodedKey) {
    const std::vector<std::pair<std::string, std::string>> layout = {
        {"a", "kv{a}"}, {"{a}", "kv{%7Ba%7D}"}, {"%7Ba%7D", "kv{%257Ba%257D}"}, {"", "kv{%}"}, {"%", "kv{%25}"},
        {std::string("a\0", 2), std::string("kv{a\0}", 6)}, {"kv{a}", "kv{kv%7Ba%7D}"}};
    for (const auto& [key, main] : layout) {
        ASSERT_EQ(zaddval(key, 1, "m", key + "!"), KV_SUCCESS);
        EXPECT_EQ(redis({"ZSCORE", main, "m"}) + " " + redis({"HGET", main + ":v", "m"}), "1 " + key + "!") << main;
    }
    EXPECT_EQ(redis({"DBSIZE"}), std::to_string(2 * layout.size()));
}

}  // namespace
}  // namespace kelvane_test
