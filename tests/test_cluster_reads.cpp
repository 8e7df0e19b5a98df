// test_cluster_reads.cpp -- reads on a cluster by a user who may not run functions, through a slot's move. Their
// native commands go in transactions and watched runs, which a cluster refuses command by command (MOVED, ASK, an
// EXECABORT after them): the reads follow the move as a function call does, each answering at once what the data
// holds, on the source, on the target and once the move is done; a key whose two server keys the move has split
// waits until they are together again.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <future>
#include <thread>

#include "redis_cluster.h"

namespace kelvane_test {
namespace {

// The documented rights of a user who may read and nothing else (docs/security.md), on a cluster.
const Argv kReaderAcl = {"~kv{*", "+ping", "+pttl", "+multi", "+exec", "+watch", "+unwatch", "+exists", "+zcard",
                         "+zcount", "+zrange", "+zrank", "+zrevrank", "+zscore", "+hget", "+hgetall", "+hlen",
                         "+hmget", "+cluster|slots", "+asking", "+cluster|info"};

// A reader's client, logged in through the environment as a program run by an operator would be.
class Reader {
public:
    explicit Reader(int seed) : mm_(kv_mm_create(nullptr, nullptr, nullptr, 0)) {
        setenv("KELVANE_USER", "reader", 1);
        setenv("KELVANE_PASSWORD", "pw-reader", 1);
        client_ = kv_client_create(1, 2, mm_, 2);
        EXPECT_EQ(kv_server_add(client_, "127.0.0.1", static_cast<uint32_t>(seed), nullptr), KV_SUCCESS);
        unsetenv("KELVANE_USER");
        unsetenv("KELVANE_PASSWORD");
    }
    ~Reader() {
        kv_client_destroy(client_);
        EXPECT_EQ(mm_->live_count(mm_), 0u);
        kv_mm_destroy(mm_);
    }

    // Every read of key with its results as text: the point reads of member, its count, the scores from 1 to 2
    // with values (of a part of the set: a watched read, the first time a client reads the key), and the whole
    // set with values.
    std::string everything(const std::string& key, const std::string& member) {
        const char* k = key.data();
        const size_t kl = key.size();
        double score = 0;
        char* value = nullptr;
        size_t len = 0;
        uint32_t rank = 0, n = 0;
        // One call per statement: the results are read after the call that wrote them.
        int32_t status = kv_zscore(client_, k, kl, member.data(), member.size(), &score, &value, &len);
        std::string out = "zscore " + std::to_string(status) + " " + text(score) + "=" + taken(value, len);
        status = kv_zrank(client_, k, kl, member.data(), member.size(), &rank, ZSET_WITH_VALUES, &value, &len);
        out += " zrank " + std::to_string(status) + " " + std::to_string(rank) + "=" + taken(value, len);
        status = kv_zcard(client_, k, kl, &n);
        out += " zcard " + std::to_string(status) + " " + std::to_string(n);
        status = kv_zcount(client_, k, kl, 1, 2, &n);
        out += " zcount " + std::to_string(status) + " " + std::to_string(n);
        out += " part" + range(key, true);
        out += " whole" + range(key, false);
        return out;
    }

private:
    static std::string text(double d) { return std::to_string(std::lround(d * 10)); }
    std::string taken(char* value, size_t len) {
        std::string out = value != nullptr ? std::string(value, len) : "-";
        mm_->release(value);
        return out;
    }
    std::string range(const std::string& key, bool part) {
        void **m = nullptr, **v = nullptr;
        size_t n = 0, *ml = nullptr, *vl = nullptr;
        double* s = nullptr;
        const int32_t flags = ZSET_WITH_SCORES | ZSET_WITH_VALUES;
        const int32_t status =
            part ? kv_zrangebyscore(client_, key.data(), key.size(), 1, 2, &m, &n, &ml, flags, &s, &v, &vl)
                 : kv_zrange(client_, key.data(), key.size(), 0, -1, &m, &n, &ml, flags, &s, &v, &vl);
        std::string out = " " + std::to_string(status);
        for (size_t i = 0; i < n; ++i) {
            out += " " + std::string(static_cast<char*>(m[i]), ml[i]) + "@" + text(s[i]) + "=" +
                   (v[i] ? std::string(static_cast<char*>(v[i]), vl[i]) : "-");
            mm_->release(m[i]), mm_->release(v[i]);
        }
        for (void* a : {static_cast<void*>(m), static_cast<void*>(ml), static_cast<void*>(s), static_cast<void*>(v),
                        static_cast<void*>(vl)}) {
            mm_->release(a);
        }
        return out;
    }

    kv_mm* mm_;
    kv_client* client_ = nullptr;
};

TEST(NativeReads, AReaderWithoutFunctionsFollowsASlotMove) {
    RedisCluster cluster;
    for (int port : cluster.ports()) {
        Argv argv = {"ACL", "SETUSER", "reader", "reset", "on", ">pw-reader"};
        argv.insert(argv.end(), kReaderAcl.begin(), kReaderAcl.end());
        cluster.must(port, argv);
    }
    const std::vector<int> masters = cluster.masters();
    const std::map<int, std::vector<std::string>> by_slot = keys_by_slot(cluster, {"n"});
    auto group = by_slot.upper_bound(100);
    while (group->second.size() < 3) ++group;
    const std::string &moved = group->second[0], &split = group->second[1], &bare = group->second[2];
    KvClient writer;
    ASSERT_EQ(writer.add_seed(masters[0]), KV_SUCCESS);
    for (const std::string& key : {moved, split}) {
        ASSERT_EQ(writer.zaddval(key, 1, "a", "value a"), KV_SUCCESS);
        ASSERT_EQ(writer.zaddval(key, 1.5, "b", "value b"), KV_SUCCESS);
        ASSERT_EQ(writer.zadd(key, 3, "c"), KV_SUCCESS);
    }
    ASSERT_EQ(writer.zadd(bare, 2, "a"), KV_SUCCESS);
    const std::string full = "zscore 0 10=value a zrank 0 0=value a zcard 0 3 zcount 0 2"
                             " part 0 a@10=value a b@15=value b whole 0 a@10=value a b@15=value b c@30=-";
    const std::string without_values = "zscore 0 20=- zrank 0 0=- zcard 0 1 zcount 0 1 part 0 a@20=- whole 0 a@20=-";
    // Each step with a reader of its own, which knows nothing of the keys yet.
    const auto read = [&](const std::string& key) { return Reader(masters[0]).everything(key, "a"); };
    ASSERT_EQ(read(moved), full);

    // The slot opened, one key moved, one key without values on the source: the source sends on what it lacks
    // (ASK), refuses a transaction whose keys it holds in part, and serves the key without values with its set
    // alone.
    const int source = cluster.owner_of_slot(group->first);
    const int target = source == masters.back() ? masters.front() : masters.back();
    const Migration m = cluster.open_migration(group->first, target);
    cluster.move_keys(m, {main_server_key(moved), main_server_key(moved) + ":v"});
    cluster.reset_error_stats();
    EXPECT_EQ(read(moved), full);
    EXPECT_EQ(read(split), full);
    EXPECT_EQ(read(bare), without_values);
    EXPECT_GT(cluster.error_count("ASK"), 0);
    EXPECT_EQ(cluster.error_count("MOVED"), 0);
    cluster.move_keys(m, {main_server_key(bare)});
    EXPECT_EQ(read(bare), without_values);

    // A key whose set has moved and whose values have not: its reads wait until they are together again.
    cluster.move_keys(m, {main_server_key(split)});
    std::future<void> settled = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        cluster.move_keys(m, {main_server_key(split) + ":v"});
        cluster.close_migration(m);
    });
    const auto started = Clock::now();
    EXPECT_EQ(read(split), full);
    EXPECT_GE(seconds(Clock::now() - started), 0.5) << "a read did not wait for the split key";
    settled.get();

    // The move done: each node sends reads of the slot to its new master (MOVED).
    for (const std::string& key : {moved, split}) EXPECT_EQ(read(key), full);
    EXPECT_EQ(read(bare), without_values);
}

}  // namespace
}  // namespace kelvane_test
