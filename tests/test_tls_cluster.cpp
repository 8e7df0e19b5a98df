// test_tls_cluster.cpp -- a cluster that speaks TLS only (to clients, between nodes and to replicas) and requires
// client certificates, on 127.0.0.1:12345-12350: zset, unchanged, passes with nothing but the environment's settings
// before and after a master is killed and its replica takes over; and a client that was working on every master
// goes on, on the promoted replica, each node's certificate checked against the address the cluster announces.
#include <gtest/gtest.h>

#include <string>

#include "fault_injector.h"
#include "redis_cluster.h"
#include "tls_certificates.h"
#include "tls_fixture.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

TEST(TlsCluster, ZsetAndAWorkingClientGoOnThroughAFailover) {
    for (int port = kZsetPort; port < kZsetPort + RedisCluster::kNodes; ++port) {
        if (!in_private_network() && (RedisServer::listening(port) || RedisServer::listening(port + 10000))) {
            GTEST_SKIP() << "port " << port << " or its cluster bus port is taken and there is no private network";
        }
    }
    const TestCertificates certs;
    const CertPair server = certs.server(), mine = certs.client();
    ServerOptions tls;
    tls.tls_cert = server.cert;
    tls.tls_key = server.key;
    tls.tls_ca = certs.ca();
    tls.tls_auth_clients = true;
    RedisCluster cluster(kZsetPort, tls);
    const std::vector<std::pair<const char*, std::string>> settings = {
        {"KELVANE_TLS_MODE", "verify-full"}, {"KELVANE_TLS_CA_FILE", certs.ca()},
        {"KELVANE_TLS_CERT_FILE", mine.cert}, {"KELVANE_TLS_KEY_FILE", mine.key}};
    const auto zset_passes = [&](const char* when) {
        SCOPED_TRACE(when);
        ZsetRunOptions options;
        for (const auto& [name, value] : settings) options.env.push_back(std::string(name) + "=" + value);
        options.timeout_s = 60;
        const ZsetRun run = run_zset(options);
        EXPECT_EQ(run.exit_code, 0);
        const Transcript t = parse_transcript(run.out);
        EXPECT_EQ(t.summary, summary_line(kCases, 0)) << run.out.substr(0, 2000);
    };
    zset_passes("before the failover");

    // This process's own client, with the same settings from its environment, on a key of every master.
    const ScopedEnv env({{settings[0].first, settings[0].second.c_str()},
                         {settings[1].first, settings[1].second.c_str()},
                         {settings[2].first, settings[2].second.c_str()},
                         {settings[3].first, settings[3].second.c_str()}});
    const std::vector<int> masters = cluster.masters();
    const auto by_slot = keys_by_slot(cluster, {"t"});
    std::vector<std::string> keys;
    for (int master : masters) {
        for (const auto& [slot, in_slot] : by_slot) {
            if (cluster.owner_of_slot(slot) == master) {
                keys.push_back(in_slot.front());
                break;
            }
        }
    }
    KvClient client;
    ASSERT_EQ(client.add_seed(kZsetPort), KV_SUCCESS);
    for (const std::string& key : keys) ASSERT_EQ(client.zaddval(key, 1, "m", "before"), KV_SUCCESS) << key;

    const int victim = masters.at(1), heir = cluster.replica_of(victim);
    cluster.kill(victim);
    cluster.wait_healthy(60);
    ASSERT_EQ(cluster.role(heir), "master");
    // The next call on the dead master's key may meet the refusal while the client learns the new map; within a few
    // calls it is served by the heir, over TLS, and the write made before is there.
    int32_t status = -1;
    for (int attempt = 0; attempt < 5 && status != KV_SUCCESS; ++attempt) {
        status = client.zaddval(keys[1], 2, "n", "after");
    }
    EXPECT_EQ(status, KV_SUCCESS);
    for (const std::string& key : keys) {
        EXPECT_EQ(client.zscore(key, "m").value, std::optional<std::string>("before")) << key;
    }
    for (int port : cluster.masters()) cluster.must(port, {"FLUSHALL"});
    zset_passes("after the failover");
}

}  // namespace
}  // namespace kelvane_test
