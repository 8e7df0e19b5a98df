// Access rules: a Redis ACL user with no more than the documented minimal rights runs every operation, on a
// server whose functions another client loaded and, with FUNCTION LOAD added, on one that has none yet; a user
// who may not call functions, or a server that has no functions at all, still serves every read, and writes and
// removals answer KV_NOT_PERMITTED without changing anything; such a reader sees each write whole while a writer
// keeps changing a large set.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

// The documented minimal ACL of a kelvane user (docs/security.md): the commands the client sends itself (FCALL,
// FUNCTION LIST, DEL, PTTL, the reads' native commands and transactions, and the PING that tags them; HELLO and
// AUTH need no right), every command the server functions call, and kelvane's keys alone.
const Strings kMinimalAcl = {
    "~kv{*",
    "+fcall", "+function|list", "+del", "+pttl", "+ping", "+multi", "+exec", "+watch", "+unwatch", "+hgetall",
    "+exists", "+type", "+expire", "+pexpireat", "+pexpiretime", "+persist",
    "+sadd", "+scard",
    "+zadd", "+zcard", "+zcount", "+zincrby", "+zrange", "+zrank", "+zrevrank", "+zrem", "+zremrangebyrank",
    "+zremrangebyscore", "+zscore",
    "+hdel", "+hget", "+hlen", "+hmget", "+hset",
};

// The documented rights of a user who may read and nothing else: no function at all.
const Strings kReaderAcl = {"~kv{*", "+ping", "+pttl", "+multi", "+exec", "+watch", "+unwatch", "+exists",
                            "+zcard", "+zcount", "+zrange", "+zrank", "+zrevrank", "+zscore", "+hget", "+hgetall",
                            "+hlen", "+hmget"};

class Access : public LibraryTest {
protected:
    // A client of server logged in as user, whom this makes with exactly rights.
    kv_client* client_as(const RedisServer& server, const std::string& user, const Strings& rights) {
        Strings argv = {"ACL", "SETUSER", user, "reset", "on", ">pw-8d1f"};
        argv.insert(argv.end(), rights.begin(), rights.end());
        EXPECT_EQ(server.command(argv), "OK");
        const kv_credentials credentials{user.c_str(), "pw-8d1f"};
        return another(server.port(), nullptr, &credentials);
    }

    // Every operation, along every path that calls other server commands; each one succeeds.
    void every_operation_works(const char* setting, kv_client* c) {
        SCOPED_TRACE(setting);
        const double cd[] = {3, 4}, ef[] = {5, 6};
        const char *c_d[] = {"c", "d"}, *e_f[] = {"e", "f"}, *v_ef[] = {"ve", "vf"};
        const size_t ones[] = {1, 1}, twos[] = {2, 2};
        char* text = nullptr;
        size_t len = 0;
        double score = 0;
        uint32_t n = 0;
        EXPECT_EQ(kv_sadd(c, "acl-set", 7, "m", 1, 100), KV_SUCCESS);
        EXPECT_EQ(kv_zadd(c, "acl", 3, 1, "a", 1, 100), KV_SUCCESS);
        EXPECT_EQ(kv_zmadd(c, "acl", 3, cd, c_d, 2, ones, COMMIT_TTL(0)), KV_SUCCESS);
        EXPECT_EQ(kv_zaddval(c, "acl", 3, 2, "b", 1, "vb", 2, COMMIT_TTL(200)), KV_SUCCESS);
        EXPECT_EQ(kv_zmaddval(c, "acl", 3, ef, e_f, 2, ones, v_ef, twos, 0), KV_SUCCESS);
        EXPECT_EQ(kv_zaddvalmax(c, "acl", 3, "g", 1, "vg", 2, 1, 0), KV_SUCCESS);  // at 7
        EXPECT_EQ(kv_zaddmaxinc(c, "acl", 3, 1, 0), KV_SUCCESS);                    // "8" at 8
        EXPECT_EQ(kv_zadddis(c, "acl", 3, 8.5, "x", 1, 1, &text, 0), KV_SUCCESS);   // "8" moves to 8.5
        EXPECT_STREQ(text, "8");
        mm_->release(text);
        EXPECT_EQ(kv_zincrby(c, "acl", 3, "a", 1, 0.5, &score, 0), KV_SUCCESS);

        EXPECT_EQ(zscore_status(c, "acl", "b"), KV_SUCCESS);
        EXPECT_EQ(zscore_status(c, "acl-none", "b"), KV_NOTFOUND);
        // A part of a set whose values the client has not seen yet (a watched read), then the whole set.
        EXPECT_EQ(read([&](RangeOut& o) {
                      return kv_zrangebyscore(c, "acl", 3, 1, 2, &o.m, &o.n, &o.ml, kAll, &o.s, &o.v, &o.vl);
                  }).values,
                  (Values{std::nullopt, "vb"}));
        EXPECT_EQ(kv_zrank(c, "acl", 3, "b", 1, &n, ZSET_WITH_VALUES, &text, &len), KV_SUCCESS);
        mm_->release(text);
        EXPECT_EQ(kv_zrank(c, "acl", 3, "b", 1, &n, ZSET_REVERSE), KV_SUCCESS);
        EXPECT_EQ(kv_zcard(c, "acl", 3, &n), KV_SUCCESS);
        EXPECT_EQ(kv_zcount(c, "acl", 3, 1, 2, &n), KV_SUCCESS);
        EXPECT_EQ(range("acl", 0, -1, c).members, (Strings{"a", "b", "c", "d", "e", "f", "g", "8"}));

        EXPECT_EQ(kv_zrem(c, "acl", 3, "a", 1), KV_SUCCESS);
        EXPECT_EQ(kv_zmrem(c, "acl", 3, c_d, 2, ones, &n), KV_SUCCESS);
        EXPECT_EQ(kv_zremrangebyscore(c, "acl", 3, 5, 6, &n), KV_SUCCESS);
        EXPECT_EQ(kv_zremrangebyrank(c, "acl", 3, 0, 0, &n), KV_SUCCESS);
        EXPECT_EQ(kv_zadddis(c, "acl", 3, 100, "x", 1, 1, &text, 0), KV_SUCCESS);  // beyond the drift: starts again
        EXPECT_TRUE(ttl_is("acl", 200, c));
        EXPECT_EQ(kv_del(c, "acl", 3), KV_SUCCESS);
        EXPECT_EQ(kv_del(c, "acl-set", 7), KV_SUCCESS);
    }
};

TEST_F(Access, LeastPrivilegedUserRunsEveryOperation) {
    ASSERT_EQ(zadd("admin", 1, "m"), KV_SUCCESS);
    every_operation_works("functions loaded by an administrator's client", client_as(*server_, "kelvane", kMinimalAcl));
    RedisServer bare;
    Strings loader = kMinimalAcl;
    loader.push_back("+function|load");
    every_operation_works("a server without the functions, and a user who may load them",
                          client_as(bare, "loader", loader));
    EXPECT_NE(bare.command({"FUNCTION", "LIST"}).find("library_name,kelvane_"), std::string::npos);
}

// Reads need no function: a user who may not call any (as operators set up once scripting is to be kept off) is
// served every read, on a server whose functions another client loaded and on one that holds none, and the
// functions' writes and removals are refused before anything changes.
TEST_F(Access, UserWhoMayNotCallFunctionsReadsEverythingAndChangesNothing) {
    ASSERT_EQ(zaddval("k", 1, "m", "v", 600), KV_SUCCESS);
    ASSERT_EQ(zadd("k", 2, "n"), KV_SUCCESS);
    RedisServer bare;  // the same data, written without the library
    bare.command({"ZADD", "kv{k}", "1", "m", "2", "n"});
    bare.command({"HSET", "kv{k}:v", "m", "v"});
    for (const RedisServer* server : {server_.get(), &bare}) {
        SCOPED_TRACE(server == &bare ? "a server without functions" : "a server with the functions loaded");
        kv_client* c = client_as(*server, "reader", kReaderAcl);
        const std::string before = server->command({"DBSIZE"}) + server->command({"ZRANGE", "kv{k}", "0", "-1"});
        double score = 42;
        uint32_t n = 9;
        char* value = nullptr;
        size_t len = 0;
        EXPECT_EQ(zscore_status(c, "k", "m"), KV_SUCCESS);
        EXPECT_EQ(zscore_status(c, "k", "x"), KV_NO_SET_KEY);
        EXPECT_EQ(kv_zrank(c, "k", 1, "m", 1, &n, ZSET_WITH_VALUES | ZSET_REVERSE, &value, &len), KV_SUCCESS);
        EXPECT_EQ(std::string(value, len) + " " + std::to_string(n), "v 1");
        mm_->release(value);
        EXPECT_EQ(kv_zcard(c, "k", 1, &n), KV_SUCCESS);
        EXPECT_EQ(n, 2u);
        EXPECT_EQ(kv_zcount(c, "k", 1, 2, 5, &n), KV_SUCCESS);
        EXPECT_EQ(n, 1u);
        EXPECT_EQ(read([&](RangeOut& o) {
                      return kv_zrangebyscore(c, "k", 1, 0, 1, &o.m, &o.n, &o.ml, kAll, &o.s, &o.v, &o.vl);
                  }).values,
                  (Values{"v"}));
        EXPECT_EQ(range("k", 0, -1, c).values, (Values{"v", std::nullopt}));
        EXPECT_EQ(range("k", 0, 0, c).values, (Values{"v"}));  // a few members: the function, refused, then native
        EXPECT_EQ(range("none", 0, -1, c).status, KV_NOTFOUND);
        EXPECT_TRUE(server == &bare ? ttl("k", c) == 0 : ttl_is("k", 600, c));
        EXPECT_EQ(kv_zaddval(c, "new", 3, 2, "n", 1, "w", 1, 0), KV_NOT_PERMITTED);
        EXPECT_EQ(kv_zincrby(c, "k", 1, "m", 1, 1, &score, 0), KV_NOT_PERMITTED);
        EXPECT_EQ(kv_zremrangebyrank(c, "k", 1, 0, -1, &n), KV_NOT_PERMITTED);
        EXPECT_TRUE(score == 0 && n == 0);
        EXPECT_EQ(server->command({"DBSIZE"}) + server->command({"ZRANGE", "kv{k}", "0", "-1"}), before);
    }
    EXPECT_EQ(bare.command({"FUNCTION", "LIST"}), "") << "a read loaded the functions";
}

// A writer rewrites every member of a set of 5,000 with values, in one call, to round r: score r, value "r". A reader
// without functions reads the whole set and its first 100 members meanwhile: reads of a large values hash go in two
// round trips under a WATCH, and must see one round whole each time, read again when a write came in between.
TEST_F(Access, AReaderWithoutFunctionsSeesEachWriteWholeWhileAWriterChangesALargeSet) {
    constexpr int kMembers = 5000;
    std::vector<std::string> names(kMembers);
    std::vector<const char*> np(kMembers), vp(kMembers);
    std::vector<size_t> nl(kMembers), vl(kMembers);
    for (int i = 0; i < kMembers; ++i) names[i] = "member-" + std::to_string(i);
    const auto write_round = [&](kv_client* c, int r) {
        const std::string value = std::to_string(r);
        const std::vector<double> scores(kMembers, r);
        for (int i = 0; i < kMembers; ++i) {
            np[i] = names[i].data(), nl[i] = names[i].size(), vp[i] = value.data(), vl[i] = value.size();
        }
        return kv_zmaddval(c, "live", 4, scores.data(), np.data(), kMembers, nl.data(), vp.data(), vl.data(), 0);
    };
    ASSERT_EQ(write_round(client_, 0), KV_SUCCESS);
    kv_client* reader = client_as(*server_, "reader", kReaderAcl);
    kv_client* writer = another(server_->port());
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::atomic<int32_t> failed{KV_ALREADY_EXISTS};
    // Stops and joins the writer however the reading ends, a failed assertion included.
    struct Writing {
        std::atomic<bool>& stop;
        std::thread thread;
        ~Writing() {
            stop = true;
            if (thread.joinable()) thread.join();
        }
    } writing{stop, std::thread([&] {
                  for (int r = 1; !stop; ++r) {
                      const int32_t status = write_round(writer, r);
                      if (status != KV_ALREADY_EXISTS) return failed.store(status);  // every member is there
                      rounds = r;
                  }
              })};
    int reads = 0;
    const auto start = std::chrono::steady_clock::now();
    const auto elapsed = [&] { return std::chrono::steady_clock::now() - start; };
    while (failed == KV_ALREADY_EXISTS && (elapsed() < std::chrono::seconds(1) || rounds < 3) &&
           elapsed() < std::chrono::seconds(20)) {
        const bool whole = reads % 2 == 0;
        const Range got = whole ? range("live", 0, -1, reader) : range("live", 0, 99, reader);
        ASSERT_EQ(got.status, KV_SUCCESS);
        ASSERT_EQ(got.members.size(), whole ? size_t{kMembers} : size_t{100});
        const double r = got.scores.front();
        for (size_t i = 0; i < got.members.size(); ++i) {
            ASSERT_TRUE(got.scores[i] == r && got.values[i] == std::to_string(static_cast<int>(r)))
                << "read " << reads << ": " << got.members[i] << " at " << got.scores[i] << " with "
                << got.values[i].value_or("no value") << " beside round " << r;
        }
        ++reads;
    }
    stop = true;
    writing.thread.join();
    EXPECT_EQ(failed.load(), KV_ALREADY_EXISTS);
    EXPECT_GE(rounds.load(), 3) << "the writer stopped";
    EXPECT_GE(reads, 4);
}

}  // namespace
}  // namespace kelvane_test
