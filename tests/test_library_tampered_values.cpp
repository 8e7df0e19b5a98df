// A values hash that someone else made another type (a string) while its sorted set stays: every write that
// would touch the hash, every read that needs values and every removal answers KV_WRONG_REPLY and leaves both
// server keys exactly as they were; none of them half-applies. Writes that never touch the hash (a member without
// a value, an increment, on the existing set with a plain time-to-live) land on the set alone and leave the
// foreign hash as it was. kv_del still clears the key.
#include <functional>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

const double kScores[] = {7, 8};
const char* const kNames[] = {"n1", "n2"};
const size_t kTwos[] = {2, 2};

class TamperedValues : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(zaddval("k", 1, "a", "va"), KV_SUCCESS);
        ASSERT_EQ(zaddval("k", 2, "b", "vb"), KV_SUCCESS);
        ASSERT_EQ(zadd("k", 3, "c"), KV_SUCCESS);
        ASSERT_EQ(redis({"SET", "kv{k}:v", "x"}), "OK");
    }

    std::string state() const { return server_view("kv{k}") + "\n" + server_view("kv{k}:v"); }

    // Runs each call and expects KV_WRONG_REPLY with both keys as they were before it.
    void refused_whole(const std::vector<std::pair<const char*, std::function<int32_t()>>>& calls) {
        for (const auto& [name, call] : calls) {
            const std::string before = state();
            EXPECT_EQ(call(), KV_WRONG_REPLY) << name;
            EXPECT_EQ(state(), before) << name << " changed the keys";
        }
    }
};

TEST_F(TamperedValues, WritesThatTouchValuesAreRefusedWholeOthersLeaveTheHashAlone) {
    // A name handed back on an unexpected success is released, so only the status tells.
    bool named = false;
    const auto add_with_drift = [&](double score) {
        char* kept = reinterpret_cast<char*>(RangeOut::junk);
        const int32_t status = kv_zadddis(client_, "k", 1, score, "d", 1, 1, &kept, 0);
        if (status == KV_SUCCESS) mm_->release(kept);
        else named = named || kept != nullptr;
        return status;
    };
    double score = 42;
    const std::string foreign = server_view("kv{k}:v");
    const std::vector<std::pair<const char*, std::function<int32_t()>>> set_only = {
        {"zadd new member", [&] { return zadd("k", 4, "d"); }},
        {"zadd existing member", [&] { return zadd("k", 9, "a"); }},
        {"zmadd", [&] { return kv_zmadd(client_, "k", 1, kScores, kNames, 2, kTwos, 0); }},
        {"zincrby", [&] { return kv_zincrby(client_, "k", 1, "a", 1, 1, &score, 0); }},
    };
    for (const auto& [name, call] : set_only) {
        const int32_t status = call();
        EXPECT_TRUE(status == KV_SUCCESS || status == KV_ALREADY_EXISTS) << name << ": " << status;
        EXPECT_EQ(server_view("kv{k}:v"), foreign) << name << " touched the foreign values hash";
    }
    EXPECT_EQ(score, 10);
    EXPECT_EQ(server_view("kv{k}"), "kv{k}: zset [b,2,c,3,d,4,n1,7,n2,8,a,10] expires -1");
    refused_whole({
        {"zadd committing a time-to-live", [&] { return zadd("k", 5, "e", COMMIT_TTL(60)); }},
        {"zaddval", [&] { return zaddval("k", 4, "d", "vd"); }},
        {"zaddval committing a time-to-live", [&] { return zaddval("k", 4, "d", "vd", COMMIT_TTL(60)); }},
        {"zmaddval", [&] { return kv_zmaddval(client_, "k", 1, kScores, kNames, 2, kTwos, kNames, kTwos, 0); }},
        {"zaddvalmax", [&] { return kv_zaddvalmax(client_, "k", 1, "d", 1, "vd", 2, 1, 0); }},
        {"zaddmaxinc", [&] { return kv_zaddmaxinc(client_, "k", 1, 1, 0); }},
        {"zadddis within the drift", [&] { return add_with_drift(3.5); }},
        {"zadddis beyond the drift", [&] { return add_with_drift(100); }},
        {"zincrby committing a time-to-live", [&] {
             return kv_zincrby(client_, "k", 1, "a", 1, 1, &score, COMMIT_TTL(60)); }},
    });
    EXPECT_FALSE(named) << "a refused zadddis handed back a name";
    EXPECT_EQ(score, 0);
}

TEST_F(TamperedValues, ReadsOfValuesAndRemovalsAreRefusedWholeAndDelClears) {
    uint32_t rank = 9, removed = 9;
    char* value = reinterpret_cast<char*>(RangeOut::junk);
    size_t len = 7;
    const size_t ones[] = {1, 1};
    const char* const ab[] = {"a", "b"};
    refused_whole({
        {"zscore", [&] { return score_of("k", "a").status; }},
        {"zrank with values", [&] {
             const int32_t status = kv_zrank(client_, "k", 1, "b", 1, &rank, ZSET_WITH_VALUES, &value, &len);
             if (status == KV_SUCCESS) mm_->release(value), value = nullptr;
             return status; }},
        {"zrange with values", [&] { return range("k", 0, -1).status; }},
        {"zrangebyscore with values", [&] { return by_score("k", -kInf, kInf).status; }},
        {"zrange_whole with values", [&] {
             return read([&](RangeOut& o) {
                        return kv_zrange_whole(client_, "k", 1, 0, -1, &o.m, &o.n, &o.ml, "/s", 2, kAll, &o.s, &o.v,
                                               &o.vl); }).status; }},
        {"zrem", [&] { return kv_zrem(client_, "k", 1, "a", 1); }},
        {"zmrem", [&] { return kv_zmrem(client_, "k", 1, ab, 2, ones, &removed); }},
        {"zremrangebyscore", [&] { return kv_zremrangebyscore(client_, "k", 1, 1, 2, &removed); }},
        {"zremrangebyrank", [&] { return kv_zremrangebyrank(client_, "k", 1, 0, 0, &removed); }},
    });
    EXPECT_TRUE(rank == 0 && value == nullptr && len == 0 && removed == 0);
    EXPECT_EQ(kv_del(client_, "k", 1), KV_SUCCESS);
    EXPECT_EQ(redis({"EXISTS", "kv{k}", "kv{k}:v"}), "0");
}

}  // namespace
}  // namespace kelvane_test
