// test_cluster_zset.cpp -- zset, unchanged, against a Redis Cluster on 127.0.0.1:12345-12350 with 12345 as the one
// server it registers: a complete, byte-exact passing transcript while 12345 is a master, and again after a
// manual failover has made 12345 a replica, so that the client has to learn the topology from a replica.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fault_injector.h"
#include "redis_cluster.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

// Exit 0, nothing on standard error (where the injector also reports buffers never released), and per case the
// header, "== PASSED ==" and an empty line, then the summary.
void expect_byte_exact_pass(const ZsetRun& run) {
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.signal, 0);
    EXPECT_EQ(run.err, "");
    const Transcript t = parse_transcript(run.out);
    EXPECT_TRUE(t.well_formed) << run.out;
    EXPECT_EQ(t.summary, summary_line(kCases, 0)) << run.out;
    const std::vector<std::string> lines = lines_of(run.out);
    ASSERT_EQ(lines.size(), static_cast<size_t>(3 * kCases + 1)) << run.out;
    ASSERT_EQ(t.cases.size(), static_cast<size_t>(kCases));
    for (int k = 0; k < kCases; ++k) {
        EXPECT_EQ(lines[3 * k], "== " + t.cases[k].title + " ==");
        EXPECT_EQ(lines[3 * k + 1], "== PASSED ==") << lines[3 * k];
        EXPECT_EQ(lines[3 * k + 2], "") << lines[3 * k];
    }
    EXPECT_EQ(run.out.back(), '\n');
}

ZsetRun run_once() {
    ZsetRunOptions options;
    options.env = injector_env("");  // no fault: only the release check
    options.timeout_s = 120;
    return run_zset(options);
}

TEST(ZsetRun, PassesWithAMasterAndThenAReplicaAsItsSeed) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisCluster cluster(kZsetPort);
    ASSERT_EQ(cluster.masters().front(), kZsetPort);

    const ZsetRun first = run_once();
    {
        SCOPED_TRACE("12345 a master");
        expect_byte_exact_pass(first);
    }

    // zset's time-to-live cases need keys that do not exist yet; functions stay loaded.
    for (int port : cluster.masters()) cluster.must(port, {"FLUSHALL"});
    cluster.manual_failover(cluster.replica_of(kZsetPort));
    ASSERT_EQ(cluster.info_field(kZsetPort, "replication", "role"), "slave");

    const ZsetRun second = run_once();
    {
        SCOPED_TRACE("12345 a replica");
        expect_byte_exact_pass(second);
    }
    // Same cases, same verdicts, so the same bytes.
    EXPECT_EQ(second.out, first.out);
    std::cout << "zset runs took " << first.seconds << " s and " << second.seconds << " s\n";
}

}  // namespace
}  // namespace kelvane_test
