// A server at its memory limit (maxmemory, noeviction): reads, removals, kv_del and kv_get_ttl still work, on the
// connection a client already had and on a brand-new one; every kind of write answers KV_SERVER_FULL and changes
// nothing; nothing acknowledged before is lost; and once removals free memory, writes work again.
#include <cstdio>
#include <functional>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

constexpr const char* kLimit = "4mb";
constexpr size_t kValueSize = 8192;
constexpr int kMaxFill = 2000;  // far more than 4 MB of 8 KB values: a limit that never bites ends the loop

std::string fill_member(int i) {
    char name[16];
    std::snprintf(name, sizeof name, "m%05d", i);
    return name;
}
std::string fill_value(int i) { return std::to_string(i) + ":" + std::string(kValueSize, char('a' + i % 26)); }

// One write of each kind on key; statuses only.
using Write = std::function<int32_t(kv_client*, const std::string& key)>;
const double kScores[] = {50, 51};
const char* const kNames[] = {"w1", "w2"};
const char* const kVals[] = {"x1", "x2"};
const size_t kTwos[] = {2, 2};
const std::vector<std::pair<const char*, Write>> kWrites = {
    {"zadd", [](kv_client* c, const std::string& k) { return kv_zadd(c, k.data(), k.size(), 50, "w", 1, 0); }},
    {"zaddval", [](kv_client* c, const std::string& k) { return kv_zaddval(c, k.data(), k.size(), 50, "w", 1, "x", 1, 0); }},
    {"zmadd", [](kv_client* c, const std::string& k) { return kv_zmadd(c, k.data(), k.size(), kScores, kNames, 2, kTwos, 0); }},
    {"zmaddval", [](kv_client* c, const std::string& k) { return kv_zmaddval(c, k.data(), k.size(), kScores, kNames, 2, kTwos, kVals, kTwos, 0); }},
    {"zaddvalmax", [](kv_client* c, const std::string& k) { return kv_zaddvalmax(c, k.data(), k.size(), "w", 1, "x", 1, 1, 0); }},
    {"zaddmaxinc", [](kv_client* c, const std::string& k) { return kv_zaddmaxinc(c, k.data(), k.size(), 1, 0); }},
    {"zadddis", [](kv_client* c, const std::string& k) {
         char* kept = reinterpret_cast<char*>(RangeOut::junk);
         const int32_t s = kv_zadddis(c, k.data(), k.size(), 1000, "w", 1, 1, &kept, 0);
         EXPECT_EQ(kept, nullptr);
         return s; }},
    {"zincrby", [](kv_client* c, const std::string& k) {
         double score = 42;
         const int32_t s = kv_zincrby(c, k.data(), k.size(), "w", 1, 1, &score, COMMIT_TTL(5));
         if (s != KV_SUCCESS) EXPECT_EQ(score, 0);
         return s; }},
    {"sadd", [](kv_client* c, const std::string& k) { return kv_sadd(c, k.data(), k.size(), "w", 1, 0); }},
};

class FullServer : public LibraryTest {
protected:
    // What is stored before the server fills up: a small valued set to read, a plain set, one set per client
    // round to remove from, and one key per round for kv_del.
    void store_small_keys() {
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(zaddval("small", i, "s" + std::to_string(i), "v" + std::to_string(i), 100), KV_SUCCESS);
        }
        ASSERT_EQ(kv_sadd(client_, "plain", 5, "p", 1, 0), KV_SUCCESS);
        for (const std::string round : {"0", "1"}) {
            for (const char* m : {"a", "b", "c", "d", "e", "f"}) {
                ASSERT_EQ(zaddval("rem" + round, m[0] - 'a' + 1, m, std::string("v") + m), KV_SUCCESS);
            }
            ASSERT_EQ(zadd("doomed" + round, 1, "m"), KV_SUCCESS);
        }
    }

    // Writes 8 KB values until the server refuses one; returns how many it acknowledged.
    int fill() {
        int acked = 0;
        int32_t status = KV_SUCCESS;
        for (; acked < kMaxFill; ++acked) {
            status = zaddval("fill", acked, fill_member(acked), fill_value(acked));
            if (status != KV_SUCCESS) break;
        }
        EXPECT_LT(acked, kMaxFill) << "the memory limit never refused a write";
        EXPECT_EQ(status, KV_SERVER_FULL) << "after " << acked << " writes";
        return acked;
    }

    // Every key a refused write could touch, and the key count.
    std::string snapshot() const {
        std::string s = "keys " + redis({"DBSIZE"}) + ", fill " + redis({"ZCARD", "kv{fill}"});
        for (const char* k : {"kv{small}", "kv{small}:v", "kv{plain}", "kv{fresh}", "kv{fresh}:v"}) {
            s += "\n" + server_view(k);
        }
        return s;
    }

    // Every kind of write, on an existing key of its kind and on a new one.
    void writes_are_refused(kv_client* c) {
        const std::string before = snapshot();
        std::string got, want;
        const std::string full = std::to_string(KV_SERVER_FULL);
        for (const auto& [name, write] : kWrites) {
            const char* existing = std::string(name) == "sadd" ? "plain" : "small";
            const int32_t on_existing = write(c, existing), on_new = write(c, "fresh");
            got += std::string(name) + " " + std::to_string(on_existing) + "/" + std::to_string(on_new) + " ";
            want += std::string(name) + " " + full + "/" + full + " ";
        }
        EXPECT_EQ(got, want) << "statuses on an existing / a new key";
        EXPECT_EQ(snapshot(), before) << "a refused write changed the data";
    }

    // Every read, on the full set and the small one; the whole full set comes back as it was acknowledged.
    void reads_work(kv_client* c, int acked) {
        double score = 42;
        char* value = nullptr;
        size_t len = 0;
        ASSERT_EQ(kv_zscore(c, "fill", 4, "m00000", 6, &score, &value, &len), KV_SUCCESS);
        EXPECT_EQ(std::string(value, len), fill_value(0));
        mm_->release(value);
        uint32_t rank = 0;
        const std::string last = fill_member(acked - 1);
        value = nullptr;
        EXPECT_EQ(kv_zrank(c, "fill", 4, last.data(), last.size(), &rank, ZSET_WITH_VALUES, &value, &len), KV_SUCCESS);
        EXPECT_EQ(rank, uint32_t(acked - 1));
        EXPECT_EQ(value != nullptr ? std::string(value, len) : "(null)", fill_value(acked - 1));
        mm_->release(value);
        uint32_t n = 0;
        EXPECT_EQ(kv_zcard(c, "fill", 4, &n), KV_SUCCESS);
        EXPECT_EQ(n, uint32_t(acked));
        EXPECT_EQ(kv_zcount(c, "fill", 4, 0, 9, &n), KV_SUCCESS);
        EXPECT_EQ(n, 10u);

        Range all = read([&](RangeOut& o) {
            return kv_zrange(c, "fill", 4, 0, -1, &o.m, &o.n, &o.ml, kAll, &o.s, &o.v, &o.vl);
        });
        ASSERT_EQ(all.status, KV_SUCCESS);
        ASSERT_EQ(all.members.size(), size_t(acked)) << "acknowledged writes were lost";
        for (int i = 0; i < acked; ++i) {
            if (all.members[i] != fill_member(i) || all.scores[i] != i || all.values[i] != fill_value(i)) {
                ADD_FAILURE() << "member " << i << " came back changed";
                break;
            }
        }
        Range limited = read([&](RangeOut& o) {
            o.s = nullptr, o.v = nullptr, o.vl = nullptr;
            return kv_zrangebyscore(c, "fill", 4, 5, 9, &o.m, &o.n, &o.ml, ZSET_WITH_LIMIT, 1, 2);
        });
        EXPECT_EQ(limited.members, (Strings{"m00006", "m00007"}));
        Range suffixed = read([&](RangeOut& o) {
            o.s = nullptr;
            return kv_zrange_whole(c, "small", 5, 0, 1, &o.m, &o.n, &o.ml, "/x", 2, ZSET_WITH_VALUES, &o.v, &o.vl);
        });
        EXPECT_EQ(suffixed.members, (Strings{"s0/x", "s1/x"}));
        EXPECT_EQ(suffixed.values, (Values{"v0/x", "v1/x"}));
        Range by_score_suffixed = read([&](RangeOut& o) {
            return kv_zrangebyscore_whole(c, "small", 5, 8, kInf, &o.m, &o.n, &o.ml, "/x", 2, kAll, &o.s, &o.v,
                                          &o.vl);
        });
        EXPECT_EQ(by_score_suffixed.members, (Strings{"s8/x", "s9/x"}));
        EXPECT_EQ(by_score_suffixed.values, (Values{"v8/x", "v9/x"}));
        int32_t t = -1;
        EXPECT_EQ(kv_get_ttl(c, "small", 5, &t), KV_SUCCESS);
        EXPECT_TRUE(t == 99 || t == 100) << t;
    }

    // Removals on this round's own set take what they name, values included; kv_del takes a whole key.
    void removals_work(kv_client* c, const std::string& round) {
        const std::string key = "rem" + round, doomed = "doomed" + round;
        const char* bc[] = {"b", "c"};
        const size_t ones[] = {1, 1};
        uint32_t removed = 0;
        EXPECT_EQ(kv_zrem(c, key.data(), key.size(), "a", 1), KV_SUCCESS);
        EXPECT_EQ(kv_zmrem(c, key.data(), key.size(), bc, 2, ones, &removed), KV_SUCCESS);
        EXPECT_EQ(removed, 2u);
        EXPECT_EQ(kv_zremrangebyscore(c, key.data(), key.size(), 4, 4, &removed), KV_SUCCESS);
        EXPECT_EQ(removed, 1u);
        EXPECT_EQ(kv_zremrangebyrank(c, key.data(), key.size(), 0, 0, &removed), KV_SUCCESS);
        EXPECT_EQ(removed, 1u);
        EXPECT_EQ(redis({"ZRANGE", "kv{" + key + "}", "0", "-1"}), "f");
        EXPECT_EQ(redis({"HKEYS", "kv{" + key + "}:v"}), "f");
        EXPECT_EQ(kv_del(c, doomed.data(), doomed.size()), KV_SUCCESS);
        EXPECT_EQ(redis({"EXISTS", "kv{" + doomed + "}"}), "0");
    }
};

TEST_F(FullServer, ServesReadsAndRemovalsRefusesWritesWholeAndRecovers) {
    ASSERT_EQ(redis({"CONFIG", "SET", "maxmemory-policy", "noeviction"}), "OK");
    ASSERT_EQ(redis({"CONFIG", "SET", "maxmemory", kLimit}), "OK");
    store_small_keys();
    const int acked = fill();
    ASSERT_GT(acked, 10);
    // The fill stops at most one value past the limit, and the removals below free about as much: a lower limit
    // keeps the server full however little that is.
    ASSERT_EQ(redis({"CONFIG", "SET", "maxmemory", "2mb"}), "OK");

    {
        SCOPED_TRACE("the connection the client already had");
        writes_are_refused(client_);
        reads_work(client_, acked);
        removals_work(client_, "0");
    }
    kv_client* fresh = kv_client_create(1, 2, mm_, 2);
    ASSERT_NE(fresh, nullptr);
    {
        SCOPED_TRACE("a brand-new client");
        EXPECT_EQ(kv_server_add(fresh, "127.0.0.1", server_->port(), nullptr), KV_SUCCESS);
        writes_are_refused(fresh);
        reads_work(fresh, acked);
        removals_work(fresh, "1");
    }

    // Back to the old limit, still above it until half of the full set goes; then every write lands.
    ASSERT_EQ(redis({"CONFIG", "SET", "maxmemory", kLimit}), "OK");
    uint32_t removed = 0;
    EXPECT_EQ(kv_zremrangebyrank(fresh, "fill", 4, 0, acked / 2, &removed), KV_SUCCESS);
    EXPECT_EQ(removed, uint32_t(acked / 2 + 1));
    for (const auto& [name, write] : kWrites) {
        const std::string key = std::string("after-") + name;
        EXPECT_EQ(write(client_, key), KV_SUCCESS) << name;
        EXPECT_EQ(redis({"EXISTS", "kv{" + key + "}"}), "1") << name;
    }
    EXPECT_EQ(redis({"ZCARD", "kv{fill}"}), std::to_string(acked - (acked / 2 + 1)));
    kv_client_destroy(fresh);
}

}  // namespace
}  // namespace kelvane_test
