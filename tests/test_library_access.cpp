// Access rules: a Redis ACL user with no more than the documented minimal rights runs every operation, on a
// server whose functions another client loaded and, with FUNCTION LOAD added, on one that has none yet; a user
// who may not call functions gets KV_NOT_PERMITTED for every operation that needs one, and nothing runs.
#include <algorithm>

#include "function_libraries.h"
#include "library_fixture.h"

namespace kelvane_test {
namespace {

// The documented minimal ACL of a kelvane user (docs/design.md): the commands the client sends itself (FCALL,
// FUNCTION LIST, DEL, PTTL; HELLO and AUTH need no right), every command the server functions call, and kelvane's
// keys alone.
const Strings kMinimalAcl = {
    "~kv{*",
    "+fcall", "+function|list", "+del", "+pttl",
    "+exists", "+type", "+expire", "+pexpireat", "+pexpiretime", "+persist",
    "+sadd", "+scard",
    "+zadd", "+zcard", "+zcount", "+zincrby", "+zrange", "+zrank", "+zrevrank", "+zrem", "+zremrangebyrank",
    "+zremrangebyscore", "+zscore",
    "+hdel", "+hget", "+hlen", "+hmget", "+hset",
};
constexpr const char* kPassword = "pw-8d1f";

// Makes user on server with exactly rights.
void make_user(const RedisServer& server, const std::string& user, const Strings& rights) {
    Strings argv = {"ACL", "SETUSER", user, "reset", "on", std::string(">") + kPassword};
    argv.insert(argv.end(), rights.begin(), rights.end());
    ASSERT_EQ(server.command(argv), "OK");
}

bool holds_kelvane_library(const RedisServer& server) {
    const auto libs = function_libraries(server.port());
    return std::any_of(libs.begin(), libs.end(),
                       [](const FunctionLibrary& l) { return l.name.rfind("kelvane_", 0) == 0; });
}

class Access : public LibraryTest {
protected:
    kv_client* client_as(const RedisServer& server, const char* user, int32_t* add_status) {
        kv_client* c = kv_client_create(1, 2, mm_, 2);
        EXPECT_NE(c, nullptr);
        const kv_credentials credentials{user, kPassword};
        *add_status = kv_server_add(c, "127.0.0.1", server.port(), &credentials);
        return c;
    }

    // Every operation once, each checked for its own result; the keys are gone at the end.
    void every_operation_works(kv_client* c) {
        const double cd[] = {3, 4}, ef[] = {5, 6};
        const char *c_d[] = {"c", "d"}, *e_f[] = {"e", "f"}, *v_ef[] = {"ve", "vf"};
        const size_t ones[] = {1, 1}, twos[] = {2, 2};
        EXPECT_EQ(kv_sadd(c, "acl-set", 7, "m", 1, 100), KV_SUCCESS);
        EXPECT_EQ(kv_zadd(c, "acl", 3, 1, "a", 1, 100), KV_SUCCESS);
        EXPECT_EQ(kv_zaddval(c, "acl", 3, 2, "b", 1, "vb", 2, COMMIT_TTL(200)), KV_SUCCESS);
        EXPECT_EQ(kv_zmadd(c, "acl", 3, cd, c_d, 2, ones, 0), KV_SUCCESS);
        EXPECT_EQ(kv_zmaddval(c, "acl", 3, ef, e_f, 2, ones, v_ef, twos, 0), KV_SUCCESS);
        EXPECT_EQ(kv_zaddvalmax(c, "acl", 3, "g", 1, "vg", 2, 1, 0), KV_SUCCESS);  // at 7
        EXPECT_EQ(kv_zaddmaxinc(c, "acl", 3, 1, 0), KV_SUCCESS);                    // "8" at 8
        char* kept = nullptr;
        EXPECT_EQ(kv_zadddis(c, "acl", 3, 8.5, "x", 1, 1, &kept, 0), KV_SUCCESS);   // "8" moves to 8.5
        EXPECT_STREQ(kept, "8");
        mm_->release(kept);
        double score = 0;
        EXPECT_EQ(kv_zincrby(c, "acl", 3, "a", 1, 0.5, &score, 0), KV_SUCCESS);
        EXPECT_EQ(score, 1.5);

        char* value = nullptr;
        size_t len = 0;
        EXPECT_EQ(kv_zscore(c, "acl", 3, "b", 1, &score, &value, &len), KV_SUCCESS);
        EXPECT_EQ(value != nullptr ? std::string(value, len) : "(null)", "vb");
        mm_->release(value);
        uint32_t n = 0;
        value = nullptr;
        EXPECT_EQ(kv_zrank(c, "acl", 3, "b", 1, &n, ZSET_WITH_VALUES, &value, &len), KV_SUCCESS);
        EXPECT_EQ(n, 1u);
        mm_->release(value);
        EXPECT_EQ(kv_zrank(c, "acl", 3, "b", 1, &n, ZSET_REVERSE), KV_SUCCESS);
        EXPECT_EQ(n, 6u);
        EXPECT_EQ(kv_zcard(c, "acl", 3, &n), KV_SUCCESS);
        EXPECT_EQ(n, 8u);
        EXPECT_EQ(kv_zcount(c, "acl", 3, 1, 2, &n), KV_SUCCESS);
        EXPECT_EQ(n, 2u);
        Range all = read([&](RangeOut& o) {
            return kv_zrange(c, "acl", 3, 0, -1, &o.m, &o.n, &o.ml, kAll, &o.s, &o.v, &o.vl);
        });
        EXPECT_EQ(all.members, (Strings{"a", "b", "c", "d", "e", "f", "g", "8"}));
        const auto none = std::nullopt;
        EXPECT_EQ(all.values, (Values{none, "vb", none, none, "ve", "vf", "vg", none}));
        Range top = read([&](RangeOut& o) {
            o.s = nullptr, o.v = nullptr, o.vl = nullptr;
            return kv_zrangebyscore(c, "acl", 3, -kInf, kInf, &o.m, &o.n, &o.ml, ZSET_REVERSE | ZSET_WITH_LIMIT, 0,
                                    2);
        });
        EXPECT_EQ(top.members, (Strings{"8", "g"}));
        Range first = read([&](RangeOut& o) {
            o.s = nullptr;
            return kv_zrange_whole(c, "acl", 3, 0, 1, &o.m, &o.n, &o.ml, "/s", 2, ZSET_WITH_VALUES, &o.v, &o.vl);
        });
        EXPECT_EQ(first.values, (Values{std::nullopt, "vb/s"}));
        Range mid = read([&](RangeOut& o) {
            return kv_zrangebyscore_whole(c, "acl", 3, 5, 6, &o.m, &o.n, &o.ml, "/s", 2, kAll, &o.s, &o.v, &o.vl);
        });
        EXPECT_EQ(mid.members, (Strings{"e/s", "f/s"}));

        EXPECT_EQ(kv_zrem(c, "acl", 3, "a", 1), KV_SUCCESS);
        EXPECT_EQ(kv_zmrem(c, "acl", 3, c_d, 2, ones, &n), KV_SUCCESS);
        EXPECT_EQ(n, 2u);
        EXPECT_EQ(kv_zremrangebyscore(c, "acl", 3, 5, 6, &n), KV_SUCCESS);
        EXPECT_EQ(n, 2u);
        EXPECT_EQ(kv_zremrangebyrank(c, "acl", 3, 0, 0, &n), KV_SUCCESS);
        EXPECT_EQ(n, 1u);
        int32_t t = 0;
        EXPECT_EQ(kv_get_ttl(c, "acl", 3, &t), KV_SUCCESS);
        EXPECT_TRUE(t == 199 || t == 200) << t;
        EXPECT_EQ(kv_del(c, "acl", 3), KV_SUCCESS);
        EXPECT_EQ(kv_del(c, "acl-set", 7), KV_SUCCESS);
        EXPECT_EQ(kv_get_ttl(c, "acl", 3, &t), KV_NOTFOUND);
    }
};

TEST_F(Access, LeastPrivilegedUserRunsEveryOperation) {
    {
        SCOPED_TRACE("functions loaded by an administrator's client");
        ASSERT_EQ(zadd("admin", 1, "m"), KV_SUCCESS);
        ASSERT_TRUE(holds_kelvane_library(*server_));
        make_user(*server_, "kelvane", kMinimalAcl);
        int32_t added = -1;
        kv_client* c = client_as(*server_, "kelvane", &added);
        EXPECT_EQ(added, KV_SUCCESS);
        every_operation_works(c);
        kv_client_destroy(c);
    }
    {
        SCOPED_TRACE("a server without the functions, and a user who may load them");
        RedisServer bare;
        Strings loader = kMinimalAcl;
        loader.push_back("+function|load");
        make_user(bare, "loader", loader);
        int32_t added = -1;
        kv_client* c = client_as(bare, "loader", &added);
        EXPECT_EQ(added, KV_SUCCESS);
        every_operation_works(c);
        EXPECT_TRUE(holds_kelvane_library(bare));
        kv_client_destroy(c);
    }
}

TEST_F(Access, UserWhoMayNotCallFunctionsIsNotPermittedAndNothingRuns) {
    ASSERT_EQ(zaddval("k", 1, "m", "v"), KV_SUCCESS);
    Strings rights = kMinimalAcl;
    rights.erase(std::find(rights.begin(), rights.end(), "+fcall"));
    make_user(*server_, "reader", rights);
    const std::string before = server_view("kv{k}") + server_view("kv{k}:v") + redis({"DBSIZE"});

    int32_t added = -1;
    kv_client* c = client_as(*server_, "reader", &added);
    EXPECT_EQ(added, KV_SUCCESS);
    double score = 42;
    char* value = reinterpret_cast<char*>(RangeOut::junk);
    size_t len = 7;
    uint32_t n = 9;
    EXPECT_EQ(kv_zadd(c, "k", 1, 2, "n", 1, 0), KV_NOT_PERMITTED);
    EXPECT_EQ(kv_zaddval(c, "new", 3, 2, "n", 1, "w", 1, 0), KV_NOT_PERMITTED);
    EXPECT_EQ(kv_sadd(c, "set", 3, "n", 1, 0), KV_NOT_PERMITTED);
    EXPECT_EQ(kv_zincrby(c, "k", 1, "m", 1, 1, &score, 0), KV_NOT_PERMITTED);
    EXPECT_EQ(score, 0);
    const int32_t scored = kv_zscore(c, "k", 1, "m", 1, &score, &value, &len);
    EXPECT_EQ(scored, KV_NOT_PERMITTED);
    if (scored == KV_SUCCESS) mm_->release(value);
    else EXPECT_TRUE(score == 0 && value == nullptr && len == 0);
    EXPECT_EQ(kv_zcard(c, "k", 1, &n), KV_NOT_PERMITTED);
    EXPECT_EQ(n, 0u);
    const Range r = read([&](RangeOut& o) {
        return kv_zrange(c, "k", 1, 0, -1, &o.m, &o.n, &o.ml, kAll, &o.s, &o.v, &o.vl);
    });
    EXPECT_EQ(r.status, KV_NOT_PERMITTED);
    EXPECT_EQ(kv_zrem(c, "k", 1, "m", 1), KV_NOT_PERMITTED);
    EXPECT_EQ(kv_zremrangebyrank(c, "k", 1, 0, -1, &n), KV_NOT_PERMITTED);
    // What needs no function still works.
    int32_t t = 5;
    EXPECT_EQ(kv_get_ttl(c, "k", 1, &t), KV_SUCCESS);
    EXPECT_EQ(t, 0);
    EXPECT_EQ(server_view("kv{k}") + server_view("kv{k}:v") + redis({"DBSIZE"}), before);
    kv_client_destroy(c);
}

}  // namespace
}  // namespace kelvane_test
