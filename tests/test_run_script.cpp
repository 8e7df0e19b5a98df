// test_run_script.cpp -- scripts/run-zset.sh as CI runs it, on this build (--no-build): zset's transcript on
// standard output byte for byte, the failed cases on standard error, the JUnit report, and the exit status --
// 0 for a clean run, 1 for a failed or incomplete one, 2 when it cannot set up -- with each of its options. The
// test process has a network of its own, so the script's fixed ports are private to it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "command_runner.h"
#include "fault_injector.h"
#include "junit_document.h"
#include "redis_server.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

#if !defined(KELVANE_SOURCE_DIR) || !defined(KELVANE_BUILD_DIR)
#error "the build must define KELVANE_SOURCE_DIR and KELVANE_BUILD_DIR"
#endif

struct ScriptRun {
    CommandResult run;
    JunitDocument junit;
};

// run-zset.sh --no-build --build-dir <this build> <args>, from a temporary working directory; the report, if
// asked for with --junit report.xml, is read back.
ScriptRun run_script(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    TempDir cwd;
    std::vector<std::string> argv = {std::string(KELVANE_SOURCE_DIR) + "/scripts/run-zset.sh", "--no-build",
                                     "--build-dir", KELVANE_BUILD_DIR};
    argv.insert(argv.end(), args.begin(), args.end());
    CommandOptions options;
    options.dir = cwd.path();
    options.env = env;
    options.timeout_s = 180;
    ScriptRun r{run_command(argv, options), {}};
    if (std::filesystem::exists(cwd / "report.xml")) r.junit = read_junit(read_file(cwd / "report.xml"));
    else r.junit.parse_error = "no report";
    return r;
}

bool complete(const std::string& out) {
    const Transcript t = parse_transcript(out);
    return t.well_formed && t.cases.size() == static_cast<size_t>(kCases) && !t.summary.empty();
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(RunScript, CleanRunPassesWithZsetsTranscriptUntouched) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const ScriptRun r = run_script({"--junit", "report.xml"});
    EXPECT_EQ(r.run.exit_code, 0) << r.run.err;
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    EXPECT_EQ(r.junit.tests, kCases);
    EXPECT_EQ(r.junit.failures + r.junit.errors, 0);
    EXPECT_TRUE(has(r.run.err, "zset-report: PASSED, 68 of 68 cases passed\n")) << r.run.err;
    EXPECT_FALSE(RedisServer::listening(kZsetPort)) << "the script left its server running";

    // The same bytes zset prints on its own against a fresh server.
    RedisServer server(kZsetPort);
    EXPECT_EQ(r.run.out, run_zset().out);
}

// zset carries a search path to this build's library; --library must win over it, as the loader itself reports.
// The library there has one fault (the injector loaded over it), and the run fails with exactly its case.
TEST(RunScript, LibraryOptionRunsThatLibraryAndItsFaultFailsTheRun) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    TempDir lib;
    const std::string built = std::filesystem::canonical(std::string(KELVANE_BUILD_DIR) + "/lib/libkelvane.so.1");
    std::filesystem::copy_file(built, lib / "libkelvane.so.1");
    std::vector<std::string> env = injector_env("zcount_max_exclusive");
    env.push_back("LD_DEBUG=libs");
    const ScriptRun r = run_script({"--library", lib.path(), "--junit", "report.xml"}, env);
    EXPECT_EQ(r.run.exit_code, 1);
    EXPECT_TRUE(complete(r.run.out)) << r.run.out;
    EXPECT_TRUE(has(r.run.err, "calling init: " + lib.path() + "/libkelvane.so.1\n"));
    EXPECT_FALSE(has(r.run.err, "calling init: " + built));
    EXPECT_TRUE(has(r.run.err, "zset runs against " + lib.path() + "/libkelvane.so.1"));
    EXPECT_TRUE(has(r.run.err, "FAILED ZCOUNT 1 \"ZCOUNT - sorted sets\"\n    Condition=[i == 3] HAS FAILED at zset.cpp"))
        << r.run.err;
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    const auto failures = r.junit.of_kind("failure");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].name, "ZCOUNT - sorted sets");
    EXPECT_EQ(failures[0].message.rfind("Condition=[i == 3] HAS FAILED at zset.cpp line ", 0), 0u);
}

TEST(RunScript, ServerBinaryAndExistingServerOptions) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    TempDir dir;
    write_file(dir / "my-server", "#!/bin/sh\necho started > \"$MARKER\"\nexec redis-server \"$@\"\n");
    chmod((dir / "my-server").c_str(), 0755);
    const ScriptRun own = run_script({"--server-bin", dir / "my-server"}, {"MARKER=" + (dir / "marker")});
    EXPECT_EQ(own.run.exit_code, 0) << own.run.err;
    EXPECT_TRUE(std::filesystem::exists(dir / "marker")) << "--server-bin was not the server started";
    EXPECT_FALSE(RedisServer::listening(kZsetPort));

    RedisServer server(kZsetPort);
    const ScriptRun existing = run_script({"--existing-server"});
    EXPECT_EQ(existing.run.exit_code, 0) << existing.run.err;
    EXPECT_TRUE(complete(existing.run.out));
    EXPECT_TRUE(RedisServer::listening(kZsetPort)) << "the script stopped a server it did not start";
}

TEST(RunScript, WhatCannotBeSetUpExits2WithoutRunningZset) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    TempDir empty;
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--existing-server"},  // nothing listens
             {"--server-bin", empty / "no-such-server"}, {"--server-bin", "/bin/false"}, {"--library", empty.path()},
             {"--build-dir", empty.path()}, {"--timeout", "soon"}, {"--no-such-option"},
             {"--existing-server", "--cluster"}, {"--junit", "no/such/dir/report.xml"}}) {
        const ScriptRun r = run_script(args);
        EXPECT_EQ(r.run.exit_code, 2) << args[0] << " " << (args.size() > 1 ? args[1] : "") << "\n" << r.run.err;
        EXPECT_EQ(r.run.out, "") << args[0];
        EXPECT_NE(r.run.err, "") << args[0];
    }
    // Ports taken: 12345 for one server; any of 12345-12350 and their bus ports for a cluster.
    for (const int port : {kZsetPort, 12348, 22346}) {
        RedisServer squatter(port);
        const ScriptRun r = run_script(port == kZsetPort ? std::vector<std::string>{} : std::vector<std::string>{"--cluster"});
        EXPECT_EQ(r.run.exit_code, 2) << port;
        EXPECT_EQ(r.run.out, "") << port;
        EXPECT_TRUE(has(r.run.err, "already listens on 127.0.0.1:" + std::to_string(port))) << r.run.err;
    }
    const ScriptRun help = run_script({"--help"});
    EXPECT_EQ(help.run.exit_code, 0);
    EXPECT_TRUE(has(help.run.out, "Exit status:"));
}

// KELVANE_FAULT=slow stretches the run to seconds; a one-second limit cuts it off.
TEST(RunScript, ARunPastItsTimeoutIsStoppedAndFails) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const ScriptRun r = run_script({"--timeout", "1", "--junit", "report.xml"}, injector_env("slow"));
    EXPECT_EQ(r.run.exit_code, 1);
    EXPECT_LT(r.run.seconds, 30);
    EXPECT_TRUE(has(r.run.err, "ran longer than 1 s")) << r.run.err;
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    const auto errors = r.junit.of_kind("error");
    EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [](auto& c) { return has(c.message, "did not finish in time"); }));
    EXPECT_GT(errors.size(), 1u) << "the cases after the cut are errors";
    EXPECT_FALSE(RedisServer::listening(kZsetPort));
}

// A private cluster: the script forms it, runs zset once against it and takes it down. Whether every case passes
// depends on the library's cluster support; the exit status must say which.
TEST(RunScript, ClusterRunFormsRunsAndTearsDownAPrivateCluster) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const ScriptRun r = run_script({"--cluster", "--junit", "report.xml"});
    EXPECT_TRUE(complete(r.run.out)) << r.run.out << r.run.err;
    const bool all_passed = parse_transcript(r.run.out).summary == summary_line(kCases, 0);
    EXPECT_EQ(r.run.exit_code, all_passed ? 0 : 1) << r.run.err;
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    EXPECT_GE(r.junit.tests, kCases);
    for (int port = 12345; port <= 12350; ++port) EXPECT_FALSE(RedisServer::listening(port)) << port;
}

}  // namespace
}  // namespace kelvane_test
