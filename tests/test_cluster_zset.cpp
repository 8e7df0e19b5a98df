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
// header, "== PASSED ==" and an empty line, then the summary and its newline. True when all of it holds; what does
// not is reported once, case by case, rather than as a diff of two whole transcripts.
bool expect_byte_exact_pass(const ZsetRun& run) {
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.signal, 0);
    EXPECT_EQ(run.err, "");
    const Transcript t = parse_transcript(run.out);
    const std::vector<std::string> lines = lines_of(run.out);
    bool exact = t.well_formed && t.cases.size() == static_cast<size_t>(kCases) &&
                 lines.size() == static_cast<size_t>(3 * kCases + 1) && t.summary == summary_line(kCases, 0) &&
                 run.out.back() == '\n';
    for (int k = 0; exact && k < kCases; ++k) {
        exact = lines[3 * k] == "== " + t.cases[k].title + " ==" && lines[3 * k + 1] == "== PASSED ==" &&
                lines[3 * k + 2].empty();
    }
    if (!exact) {
        std::string why = "summary: " + t.summary + "\n";
        for (const auto& f : t.preamble_failures) why += "before the first case: " + f + "\n";
        int shown = 0;
        for (const auto& c : t.cases) {
            if (c.passed || shown++ >= 10) continue;
            why += c.title + ": " + (c.failed_conditions.empty() ? "?" : c.failed_conditions.front()) + "\n";
        }
        ADD_FAILURE() << "not a byte-exact passing transcript" << (t.well_formed ? "" : " (malformed)") << "\n"
                      << why;
    }
    return exact && run.exit_code == 0 && run.err.empty();
}

ZsetRun run_once() {
    ZsetRunOptions options;
    options.env = injector_env("");  // no fault: only the release check
    // A passing run takes well under a second; two stuck runs must still end inside the test's own time limit.
    options.timeout_s = 60;
    return run_zset(options);
}

TEST(ZsetRun, PassesWithAMasterAndThenAReplicaAsItsSeed) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    for (int port = kZsetPort; port < kZsetPort + RedisCluster::kNodes; ++port) {
        if (!in_private_network() && (RedisServer::listening(port) || RedisServer::listening(port + 10000))) {
            GTEST_SKIP() << "port " << port << " or its cluster bus port is taken and there is no private network";
        }
    }
    RedisCluster cluster(kZsetPort);
    ASSERT_EQ(cluster.masters().front(), kZsetPort);

    const ZsetRun first = run_once();
    bool both_passed;
    {
        SCOPED_TRACE("12345 a master");
        both_passed = expect_byte_exact_pass(first);
    }

    // zset's time-to-live cases need keys that do not exist yet; functions stay loaded.
    for (int port : cluster.masters()) cluster.must(port, {"FLUSHALL"});
    cluster.manual_failover(cluster.replica_of(kZsetPort));
    ASSERT_EQ(cluster.info_field(kZsetPort, "replication", "role"), "slave");

    const ZsetRun second = run_once();
    {
        SCOPED_TRACE("12345 a replica");
        both_passed = expect_byte_exact_pass(second) && both_passed;
    }
    // Same cases, same verdicts, so the same bytes.
    if (both_passed) EXPECT_EQ(second.out, first.out);
    std::cout << "zset runs took " << first.seconds << " s and " << second.seconds << " s\n";
}

}  // namespace
}  // namespace kelvane_test
