// test_cluster_zset.cpp -- zset, unchanged, against a Redis Cluster on 127.0.0.1:12345-12350 with 12345 as the one
// server it registers: a byte-exact passing transcript while 12345 is a master, and the same bytes again after a
// manual failover has made 12345 a replica, so that the client has to learn the topology from a replica.
#include <gtest/gtest.h>

#include <string>

#include "fault_injector.h"
#include "redis_cluster.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

// Runs zset with the injector but no fault, and expects exit 0, nothing on standard error (where the injector
// reports buffers never released), and per case its header, "== PASSED ==" and an empty line, then the summary.
// Gives the transcript.
std::string expect_byte_exact_pass(const char* when) {
    SCOPED_TRACE(when);
    ZsetRunOptions options;
    options.env = injector_env("");
    options.timeout_s = 60;  // a passing run takes well under a second
    const ZsetRun run = run_zset(options);
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.err, "");
    const Transcript t = parse_transcript(run.out);
    EXPECT_EQ(t.cases.size(), static_cast<size_t>(kCases));
    std::string expected;
    for (const auto& c : t.cases) expected += "== " + c.title + " ==\n== PASSED ==\n\n";
    EXPECT_EQ(run.out, expected + summary_line(kCases, 0) + "\n");
    return run.out;
}

TEST(ZsetRun, PassesWithAMasterAndThenAReplicaAsItsSeed) {
    for (int port = kZsetPort; port < kZsetPort + RedisCluster::kNodes; ++port) {
        if (!in_private_network() && (RedisServer::listening(port) || RedisServer::listening(port + 10000))) {
            GTEST_SKIP() << "port " << port << " or its cluster bus port is taken and there is no private network";
        }
    }
    RedisCluster cluster(kZsetPort);
    ASSERT_EQ(cluster.masters().front(), kZsetPort);
    const std::string first = expect_byte_exact_pass("12345 a master");

    // zset's time-to-live cases need keys that do not exist yet; functions stay loaded.
    for (int port : cluster.masters()) cluster.must(port, {"FLUSHALL"});
    cluster.manual_failover(cluster.replica_of(kZsetPort));
    ASSERT_EQ(cluster.role(kZsetPort), "slave");
    EXPECT_EQ(expect_byte_exact_pass("12345 a replica"), first);
}

}  // namespace
}  // namespace kelvane_test
