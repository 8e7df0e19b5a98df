// test_sentinel_discovery.cpp -- what a client makes of the Sentinels it is given. One that names a replica, one
// that names an address where nothing listens and one that watches no master of the name give KV_NO_MASTER with
// the reason, and what they name is never used, even for a read a replica could serve; given before a good one,
// they are passed over. Seeds of the two kinds never mix and one client follows one name; a Sentinel given as a
// data node, or the other way round, is refused with what to do. The Sentinels and the data nodes each take
// credentials and a TLS mode of their own, from the options or the environment, and a failure says which side
// refused; a Sentinel user that may not subscribe to failover announcements costs the calls nothing.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

#include "redis_cluster.h"
#include "redis_sentinel.h"
#include "tls_certificates.h"
#include "tls_fixture.h"

namespace kelvane_test {
namespace {

kv_server_options sentinel_options() {
    kv_server_options o = KV_SERVER_OPTIONS_INIT;
    o.sentinel_master = RedisSentinels::kName;
    return o;
}

TEST(SentinelDiscovery, SentinelsThatNameNoMasterSayWhyAndWhatTheyNameIsNeverUsed) {
    RedisSentinels group;
    const kv_server_options options = sentinel_options();
    // A replica (of nothing that answers) holding an old copy of a key, which a read there would happily serve.
    RedisServer stray;
    {
        KvClient direct;
        ASSERT_EQ(direct.add_seed(stray.port()), KV_SUCCESS);
        ASSERT_EQ(direct.zaddval("k", 1, "m", "stale"), KV_SUCCESS);
    }
    stray.command({"REPLICAOF", "127.0.0.1", std::to_string(RedisServer::free_port())});
    const struct {
        int sentinel;
        std::string says;
    } bad[] = {{group.start_lone_sentinel(stray.port()), "answers ROLE as slave, not as master"},
               {group.start_lone_sentinel(RedisServer::free_port()), "cannot be reached"},
               {group.start_lone_sentinel(RedisServer::free_port(), "another"), "watches no master named 'kvmaster'"}};
    for (const auto& b : bad) {
        SCOPED_TRACE(b.says);
        KvClient client(1, 1, 1);  // a bound of 2 s
        EXPECT_EQ(client.add_seed(b.sentinel, &options), KV_NO_MASTER);
        EXPECT_TRUE(contains(kv_last_error(client.get()), b.says)) << kv_last_error(client.get());
        // A call waits for a master until its deadline, then says there is none.
        const KvClient::Scored got = client.zscore("k", "m");
        EXPECT_EQ(got.status, KV_NO_MASTER);
        EXPECT_EQ(got.value, std::nullopt);
        EXPECT_TRUE(contains(kv_last_error(client.get()), b.says)) << kv_last_error(client.get());
    }

    // Given before a Sentinel of the group, they are passed over: the group's master serves the calls.
    KvClient client;
    for (const auto& b : bad) EXPECT_EQ(client.add_seed(b.sentinel, &options), KV_NO_MASTER);
    ASSERT_EQ(client.add_seed(group.sentinel_ports().back(), &options), KV_SUCCESS) << kv_last_error(client.get());
    ASSERT_EQ(client.zaddval("k", 2, "m", "fresh"), KV_SUCCESS);
    expect_scored(client, "k", "m", 2, "fresh");
    EXPECT_EQ(group.must(group.master(), {"ZSCORE", main_server_key("k"), "m"}), "2");
}

TEST(SentinelSeeds, DataNodesAndSentinelsNeverMixAndAClientFollowsOneName) {
    RedisSentinels group;
    const int sentinel = group.sentinel_ports()[0], other_sentinel = group.sentinel_ports()[1];
    const int data = group.master();
    const kv_server_options options = sentinel_options();
    {
        KvClient c;
        ASSERT_EQ(c.add_seed(data), KV_SUCCESS);
        EXPECT_EQ(c.add_seed(sentinel, &options), KV_INVALID_PARAMETER);
    }
    {
        KvClient c;
        ASSERT_EQ(c.add_seed(sentinel, &options), KV_SUCCESS);
        EXPECT_EQ(c.add_seed(data), KV_INVALID_PARAMETER);
        kv_server_options another = options;
        another.sentinel_master = "another";
        EXPECT_EQ(c.add_seed(other_sentinel, &another), KV_INVALID_PARAMETER);
        EXPECT_EQ(c.add_seed(sentinel, &options), KV_ALREADY_EXISTS);
        EXPECT_EQ(c.add_seed(other_sentinel, &options), KV_SUCCESS);
        EXPECT_EQ(c.zadd("k", 1, "m"), KV_SUCCESS);
    }
    {
        // Each refused with what to do, and nothing of either kept: the client is as new.
        KvClient c;
        EXPECT_EQ(c.add_seed(sentinel), KV_INVALID_PARAMETER);
        EXPECT_TRUE(contains(kv_last_error(c.get()), "is a Sentinel: give the name of the master"))
            << kv_last_error(c.get());
        EXPECT_EQ(c.add_seed(data, &options), KV_INVALID_PARAMETER);
        EXPECT_TRUE(contains(kv_last_error(c.get()), "is not a Sentinel")) << kv_last_error(c.get());
        EXPECT_EQ(c.zadd("k", 2, "m"), KV_NO_SERVER);
        EXPECT_EQ(c.add_seed(data), KV_SUCCESS);
        EXPECT_EQ(c.zadd("k", 3, "m"), KV_ALREADY_EXISTS);
    }
    {
        KvClient c;
        kv_server_options empty = options;
        empty.sentinel_master = "";
        EXPECT_EQ(c.add_seed(sentinel, &empty), KV_BAD_SETTINGS);
        // Options from before the Sentinel members: whatever lies past their size is not read.
        kv_server_options old = options;
        old.size = offsetof(kv_server_options, sentinel_master);
        EXPECT_EQ(c.add_seed(data, &old), KV_SUCCESS) << kv_last_error(c.get());
    }
    {
        // The master's name from the environment makes a plain kv_server_add a Sentinel's.
        const ScopedEnv env({{"KELVANE_SENTINEL_MASTER", RedisSentinels::kName}});
        KvClient c;
        EXPECT_EQ(c.add_seed(sentinel), KV_SUCCESS) << kv_last_error(c.get());
        EXPECT_EQ(c.zadd("k", 4, "m"), KV_ALREADY_EXISTS);
    }
}

// The data nodes speak TLS only and want a password; the Sentinels speak plaintext and want another password.
TEST(SentinelSettings, SentinelsAndDataNodesTakeCredentialsAndTlsOfTheirOwn) {
    const TestCertificates certs;
    const CertPair server = certs.server(), mine = certs.client();
    const std::string ca = certs.ca();
    SentinelSetup setup;
    setup.data_password = "data-secret";
    setup.sentinel_password = "sentinel-secret";
    setup.tls = {server.cert, server.key, ca, true, ""};
    RedisSentinels group(setup);
    const int sentinel = group.sentinel_ports()[0];
    const std::string master = "127.0.0.1:" + std::to_string(group.master());
    const std::string watcher = "127.0.0.1:" + std::to_string(sentinel);

    kv_server_options good = sentinel_options();
    good.password = "data-secret";
    good.sentinel_password = "sentinel-secret";
    good.tls_mode = KV_TLS_VERIFY_FULL;
    good.tls_ca_file = ca.c_str();
    good.tls_cert_file = mine.cert.c_str();
    good.tls_key_file = mine.key.c_str();
    good.sentinel_tls_mode = KV_TLS_DISABLE;
    {
        KvClient c;
        ASSERT_EQ(c.add_seed(sentinel, &good), KV_SUCCESS) << kv_last_error(c.get());
        EXPECT_EQ(c.zaddval("k", 1, "m", "v"), KV_SUCCESS);
        expect_scored(c, "k", "m", 1, "v");
    }
    struct Case {
        const char* what;
        kv_server_options options;
        int32_t status;
        std::string refused_by;
    };
    Case cases[] = {{"no Sentinel password", good, KV_AUTH_FAILED, watcher},
                    {"a wrong data password", good, KV_AUTH_FAILED, master},
                    {"TLS to the Sentinels as to the data nodes", good, KV_TLS_FAILED, watcher},
                    {"plaintext to the data nodes", good, KV_TLS_FAILED, master}};
    cases[0].options.sentinel_password = nullptr;
    cases[1].options.password = "wrong";
    cases[2].options.sentinel_tls_mode = KV_TLS_UNSET;
    cases[3].options.tls_mode = KV_TLS_DISABLE;
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        KvClient c;
        EXPECT_EQ(c.add_seed(sentinel, &k.options), k.status);
        const std::string why = kv_last_error(c.get());
        EXPECT_TRUE(contains(why.c_str(), k.refused_by)) << why;
        EXPECT_FALSE(contains(why.c_str(), "secret")) << why;
    }

    // A Sentinel user without the right to subscribe to failover announcements: its refusal is one error reply,
    // and the client, which then asks the Sentinels again every second, must not wait for more.
    for (int port : group.sentinel_ports()) {
        group.must(port, {"ACL", "SETUSER", "asker", "on", ">asker-secret", "+sentinel|get-master-addr-by-name",
                          "+sentinel|sentinels"});
    }
    {
        kv_server_options asker = good;
        asker.sentinel_user = "asker";
        asker.sentinel_password = "asker-secret";
        KvClient c(1, 10, 1);  // a long command timeout, which a reply waited for in vain would fill
        ASSERT_EQ(c.add_seed(sentinel, &asker), KV_SUCCESS) << kv_last_error(c.get());
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(c.zaddval("k", 1, "m", "v"), KV_ALREADY_EXISTS) << kv_last_error(c.get());
        EXPECT_LT(seconds(Clock::now() - start), 5.0) << "a hang-safety bound: asking again takes milliseconds";
    }

    // All of it from the environment, for kv_server_add.
    const ScopedEnv env({{"KELVANE_SENTINEL_MASTER", RedisSentinels::kName},
                         {"KELVANE_SENTINEL_PASSWORD", "sentinel-secret"},
                         {"KELVANE_SENTINEL_TLS_MODE", "disable"},
                         {"KELVANE_PASSWORD", "data-secret"},
                         {"KELVANE_TLS_CA_FILE", ca.c_str()},
                         {"KELVANE_TLS_CERT_FILE", mine.cert.c_str()},
                         {"KELVANE_TLS_KEY_FILE", mine.key.c_str()}});
    KvClient c;
    ASSERT_EQ(c.add_seed(sentinel), KV_SUCCESS) << kv_last_error(c.get());
    expect_scored(c, "k", "m", 1, "v");
}

}  // namespace
}  // namespace kelvane_test
