// Removals, and where keys live on the server.
#include <algorithm>
#include <cstring>
#include <limits>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

using Removals = LibraryTest;
using KeyLayout = LibraryTest;
using Strings = std::vector<std::string>;

TEST_F(Removals, MembersTakeTheirValuesAndFinallyTheKey) {
    for (const char* m : {"a", "b", "c", "d"}) ASSERT_EQ(zaddval("z", 1, m, std::string("v") + m), KV_SUCCESS);
    ASSERT_EQ(zadd("z", 2, "novalue"), KV_SUCCESS);

    EXPECT_EQ(kv_zrem(client_, "z", 1, "b", 1), KV_SUCCESS);
    EXPECT_EQ(redis({"HLEN", "kv{z}:v"}), "3");
    EXPECT_EQ(kv_zrem(client_, "z", 1, "b", 1), KV_NOTFOUND);  // others remain
    EXPECT_EQ(kv_zrem(client_, "absent", 6, "b", 1), KV_NOTFOUND);
    // A member that comes back does not get its old value back.
    ASSERT_EQ(zadd("z", 1, "b"), KV_SUCCESS);
    EXPECT_EQ(score_of("z", "b").value, std::nullopt);

    const char* members[] = {"a", "x", "c", "a"};
    const size_t lens[] = {1, 1, 1, 1};
    uint32_t removed = 9;
    EXPECT_EQ(kv_zmrem(client_, "z", 1, members, 4, lens, &removed), KV_SUCCESS);
    EXPECT_EQ(removed, 2u);
    EXPECT_EQ(redis({"HLEN", "kv{z}:v"}), "1");
    removed = 9;
    EXPECT_EQ(kv_zmrem(client_, "z", 1, members, 4, lens, &removed), KV_NOTFOUND);
    EXPECT_EQ(removed, 0u);
    EXPECT_EQ(kv_zmrem(client_, "absent", 6, members, 1, lens, &removed), KV_NOTFOUND);
    EXPECT_EQ(kv_zmrem(client_, "z", 1, members, 0, lens, &removed), KV_INVALID_PARAMETER);
    EXPECT_EQ(range("z", 0, -1).members, (Strings{"b", "d", "novalue"}));

    // The last value and the last member take their server keys with them.
    EXPECT_EQ(kv_zrem(client_, "z", 1, "d", 1), KV_SUCCESS);
    EXPECT_EQ(redis({"EXISTS", "kv{z}:v"}), "0");
    const char* rest[] = {"b", "novalue"};
    const size_t rest_lens[] = {1, 7};
    EXPECT_EQ(kv_zmrem(client_, "z", 1, rest, 2, rest_lens, &removed), KV_SUCCESS);
    EXPECT_EQ(removed, 2u);
    EXPECT_EQ(redis({"EXISTS", "kv{z}", "kv{z}:v"}), "0");
    EXPECT_EQ(range("z", 0, -1).status, KV_NOTFOUND);
}

TEST_F(Removals, ByScoreAndByRank) {
    auto by_score = [&](const char* key, double min, double max) {
        uint32_t removed = 99;
        EXPECT_EQ(kv_zremrangebyscore(client_, key, std::strlen(key), min, max, &removed), KV_SUCCESS);
        return removed;
    };
    auto by_rank = [&](const char* key, int32_t start, int32_t stop) {
        uint32_t removed = 99;
        EXPECT_EQ(kv_zremrangebyrank(client_, key, std::strlen(key), start, stop, &removed), KV_SUCCESS);
        return removed;
    };
    for (int i = 1; i <= 5; ++i) ASSERT_EQ(zaddval("s", i, "m" + std::to_string(i), "v"), KV_SUCCESS);
    EXPECT_EQ(by_score("s", 2, 4), 3u);  // inclusive
    EXPECT_EQ(range("s", 0, -1).members, (Strings{"m1", "m5"}));
    EXPECT_EQ(redis({"HLEN", "kv{s}:v"}), "2");
    EXPECT_EQ(by_score("s", 2, 4), 0u);
    EXPECT_EQ(by_score("absent", 0, 10), 0u);
    uint32_t removed = 0;
    EXPECT_EQ(kv_zremrangebyscore(client_, "s", 1, std::numeric_limits<double>::quiet_NaN(), 1, &removed),
              KV_INVALID_PARAMETER);
    EXPECT_EQ(by_score("s", -1e300, 1e300), 2u);
    EXPECT_EQ(redis({"EXISTS", "kv{s}", "kv{s}:v"}), "0");

    for (int i = 0; i < 8; ++i) ASSERT_EQ(zaddval("k", i, "r" + std::to_string(i), "v"), KV_SUCCESS);
    EXPECT_EQ(by_rank("k", -2, -1), 2u);  // the last two
    EXPECT_EQ(by_rank("k", 4, 2), 0u);    // backwards
    EXPECT_EQ(by_rank("k", 4, 100), 2u);  // past the end
    EXPECT_EQ(by_rank("k", 50, 60), 0u);
    EXPECT_EQ(range("k", 0, -1).members, (Strings{"r0", "r1", "r2", "r3"}));
    EXPECT_EQ(redis({"HLEN", "kv{k}:v"}), "4");
    EXPECT_EQ(by_rank("k", -100, 0), 1u);
    EXPECT_EQ(by_rank("absent", 0, -1), 0u);
    EXPECT_EQ(by_rank("k", 0, -1), 3u);
    EXPECT_EQ(redis({"EXISTS", "kv{k}", "kv{k}:v"}), "0");
}

// The cluster slot of a key: CRC16 (XMODEM) of its hash tag, modulo 16384.
unsigned key_slot(const std::string& key) {
    std::string hashed = key;
    const size_t open = key.find('{');
    if (open != std::string::npos) {
        const size_t close = key.find('}', open + 1);
        if (close != std::string::npos && close > open + 1) hashed = key.substr(open + 1, close - open - 1);
    }
    unsigned crc = 0;
    for (unsigned char byte : hashed) {
        crc ^= unsigned(byte) << 8;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) ? ((crc << 1) ^ 0x1021) & 0xffff : (crc << 1) & 0xffff;
    }
    return crc % 16384;
}

TEST_F(KeyLayout, BracesPercentZeroBytesAndTheEmptyKeyStayApart) {
    // These servers refuse CLUSTER KEYSLOT (no cluster support), so slots are
    // computed here, tied first to two slots Redis Cluster itself gives.
    ASSERT_EQ(key_slot("foo"), 12182u);
    ASSERT_EQ(key_slot("{user1000}.following"), key_slot("user1000"));

    const Strings keys = {"a", "{a}", "%7Ba%7D", "", "%", "}", "{", std::string("a\0", 2),
                          std::string("\0", 1), "{}", "kv{a}"};
    for (size_t i = 0; i < keys.size(); ++i) {
        ASSERT_EQ(zaddval(keys[i], double(i), "m" + std::to_string(i), "v" + std::to_string(i)), KV_SUCCESS) << i;
    }
    for (size_t i = 0; i < keys.size(); ++i) {
        Range r = range(keys[i], 0, -1);
        EXPECT_EQ(r.members, Strings{"m" + std::to_string(i)}) << i;
        EXPECT_EQ(r.values, (std::vector<std::optional<std::string>>{"v" + std::to_string(i)})) << i;
    }
    EXPECT_EQ(redis({"DBSIZE"}), std::to_string(2 * keys.size()));
    // Where some of them live on the server.
    for (const auto& [key, main] : std::vector<std::pair<std::string, std::string>>{
             {"a", "kv{a}"}, {"{a}", "kv{%7Ba%7D}"}, {"%7Ba%7D", "kv{%257Ba%257D}"}, {"", "kv{%}"},
             {"%", "kv{%25}"}, {"{}", "kv{%7B%7D}"}}) {
        SCOPED_TRACE(key);
        EXPECT_EQ(redis({"TYPE", main}), "zset");
        EXPECT_EQ(redis({"HLEN", main + ":v"}), "1");
    }
    // Every server key is half of a pair whose halves share a slot.
    std::string listing = redis({"KEYS", "*"}) + ",";
    Strings names;
    for (size_t at = 0, comma; (comma = listing.find(',', at)) != std::string::npos; at = comma + 1) {
        names.push_back(listing.substr(at, comma - at));
    }
    ASSERT_EQ(names.size(), 2 * keys.size());
    size_t pairs = 0;
    for (const std::string& name : names) {
        if (name.size() > 2 && name.compare(name.size() - 2, 2, ":v") == 0) continue;
        ++pairs;
        SCOPED_TRACE(name);
        EXPECT_NE(std::find(names.begin(), names.end(), name + ":v"), names.end());
        EXPECT_EQ(key_slot(name), key_slot(name + ":v"));
    }
    EXPECT_EQ(pairs, keys.size());
    for (const std::string& k : keys) EXPECT_EQ(kv_del(client_, k.data(), k.size()), KV_SUCCESS);
    EXPECT_EQ(redis({"DBSIZE"}), "0");
}

}  // namespace
}  // namespace kelvane_test
