// test_zset_runs.cpp -- whole runs of zset as users make them: against a
// fresh server, with no server at all, with the server killed or frozen in
// the middle of the run, and under valgrind.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fault_injector.h"
#include "redis_server.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

constexpr int kCases = 68;

std::string summary_line(int passed, int failed) {
    return std::string(31, '=') + " ZSET: PASSED = " + std::to_string(passed) +
           ", FAILED = " + std::to_string(failed) + " " + std::string(41, '=');
}

int count_passed(const Transcript& t) {
    int n = 0;
    for (const auto& c : t.cases) n += c.passed ? 1 : 0;
    return n;
}

// A complete transcript: 68 cases, each with its verdict, and a summary
// whose counts are the verdicts'.
void expect_complete(const ZsetRun& run) {
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.signal, 0);
    const Transcript t = parse_transcript(run.out);
    EXPECT_TRUE(t.well_formed) << run.out;
    ASSERT_EQ(t.cases.size(), static_cast<size_t>(kCases)) << run.out;
    const int passed = count_passed(t);
    EXPECT_EQ(t.summary, summary_line(passed, kCases - passed));
    for (const auto& c : t.cases) {
        EXPECT_EQ(c.passed, c.failed_conditions.empty()) << c.title;
    }
}

TEST(ZsetRun, CleanRunPassesEveryCaseAndReleasesEverything) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    ZsetRun run;
    {
        RedisServer server(kZsetPort);
        ZsetRunOptions options;
        options.env = injector_env("");  // no fault: only the release check
        run = run_zset(options);
    }
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.signal, 0);
    EXPECT_EQ(run.err, "");

    // Byte for byte: per case the header, "== PASSED ==" and an empty line;
    // then the summary and its newline, and nothing else.
    const std::vector<std::string> lines = lines_of(run.out);
    ASSERT_EQ(lines.size(), static_cast<size_t>(3 * kCases + 1)) << run.out;
    std::set<std::string> titles;
    for (int k = 0; k < kCases; ++k) {
        const std::string& header = lines[3 * k];
        ASSERT_GT(header.size(), 6u);
        EXPECT_EQ(header.substr(0, 3), "== ") << header;
        EXPECT_EQ(header.substr(header.size() - 3), " ==") << header;
        titles.insert(header.substr(3, header.size() - 6));
        EXPECT_EQ(lines[3 * k + 1], "== PASSED ==") << header;
        EXPECT_EQ(lines[3 * k + 2], "") << header;
    }
    EXPECT_EQ(titles.size(), static_cast<size_t>(kCases)) << "case titles repeat";
    EXPECT_EQ(lines.back(), summary_line(kCases, 0));
    EXPECT_EQ(run.out.back(), '\n');
    EXPECT_EQ(run.out.find("Condition="), std::string::npos);

    // Arguments are ignored: the same run with some gives the same bytes
    // (without the injector this time, which must change nothing either).
    RedisServer again(kZsetPort);
    ZsetRunOptions with_args;
    with_args.wrapper = {"/bin/sh", "-c", "exec \"$0\" --verbose -x 12345 extra"};
    const ZsetRun run2 = run_zset(with_args);
    EXPECT_EQ(run2.exit_code, 0);
    EXPECT_EQ(run2.err, "");
    EXPECT_EQ(run2.out, run.out);
}

TEST(ZsetRun, WithoutServerEveryCaseFailsAndTheRunEndsQuickly) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    ZsetRunOptions options;
    options.env = injector_env("");  // the error paths release everything too
    options.timeout_s = 30;
    const ZsetRun run = run_zset(options);

    expect_complete(run);
    EXPECT_EQ(run.err, "");
    // Nothing listens: each call's connection attempts are refused at once.
    EXPECT_LT(run.seconds, 5.0);
    const std::regex first(
        R"(Condition=\[kv_server_add\(client, HOST, PORT, NULL\) == KV_SUCCESS\] )"
        R"(HAS FAILED at zset\.cpp line [1-9][0-9]*)");
    const std::vector<std::string> lines = lines_of(run.out);
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(std::regex_match(lines[0], first)) << lines[0];
    ASSERT_GT(lines.size(), 1u);
    EXPECT_EQ(lines[1].substr(0, 3), "== ") << "the first header follows the registration";

    const Transcript t = parse_transcript(run.out);
    // The registration before the first case and the ZSCORE set-up, the
    // other check outside any case.
    EXPECT_EQ(t.preamble_failures,
              (std::vector<std::string>{
                  "kv_server_add(client, HOST, PORT, NULL) == KV_SUCCESS",
                  R"(kv_zaddval(client, key, strlen(key), 10, memkey, strlen(memkey), "bar", strlen("bar"), 0) == KV_SUCCESS)"}));
    for (const auto& c : t.cases) EXPECT_FALSE(c.passed) << c.title;
    EXPECT_EQ(t.summary, summary_line(0, kCases));
}

TEST(ZsetRun, ServerKilledMidRunStillEndsWithEveryVerdict) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    ZsetRunOptions options;
    // 5 ms more per call stretches the run (about 330 calls) to some
    // seconds, so that the kill lands in its middle.
    options.env = injector_env("slow");
    options.during_after_ms = 150;
    options.during = [&] { server.kill(); };
    options.timeout_s = 60;
    const ZsetRun run = run_zset(options);

    expect_complete(run);
    EXPECT_EQ(run.err, "");  // no crash report, and every buffer released
    const Transcript t = parse_transcript(run.out);
    ASSERT_EQ(t.cases.size(), static_cast<size_t>(kCases));
    EXPECT_TRUE(t.cases.front().passed) << "the server went before the run began";
    EXPECT_FALSE(t.cases.back().passed) << "the server never went away";
}

TEST(ZsetRun, FrozenServerCostsEachCallAtMostTheCommandTimeout) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    // zset's client waits 2 s for an answer (kv_client_create(1, 2, mm, 2)).
    // While the server is stopped a call gives up after those 2 s; the next
    // one reconnects (the kernel still accepts the connection) and waits
    // the same 2 s for its first answer. A freeze of F = 5 s thus makes
    // about F / 2 calls fail and lengthens the run by at most F + 2 s.
    // Without the bound the first blocked call would just wait for the thaw
    // and no case would fail.
    constexpr int kFreezeS = 5, kCommandTimeoutS = 2;
    std::thread thawer;
    ZsetRunOptions options;
    options.env = injector_env("slow");
    options.during_after_ms = 300;
    options.during = [&] {
        server.freeze();
        thawer = std::thread([&] {
            std::this_thread::sleep_for(std::chrono::seconds(kFreezeS));
            server.thaw();
        });
    };
    options.timeout_s = 120;
    const ZsetRun run = run_zset(options);
    if (thawer.joinable()) thawer.join();

    expect_complete(run);
    EXPECT_EQ(run.err, "");
    // The slow run itself takes a few seconds; 10 s leaves room for a
    // loaded or sanitized build.
    EXPECT_LT(run.seconds, kFreezeS + kCommandTimeoutS + 10.0);
    const Transcript t = parse_transcript(run.out);
    ASSERT_EQ(t.cases.size(), static_cast<size_t>(kCases));
    EXPECT_LT(count_passed(t), kCases) << "no call gave up while the server was frozen";
    // After the thaw the client is back: the last suite passes.
    EXPECT_TRUE(t.cases[kCases - 2].passed) << t.cases[kCases - 2].title;
    EXPECT_TRUE(t.cases[kCases - 1].passed) << t.cases[kCases - 1].title;
}

TEST(ZsetRun, ValgrindFindsNoErrorsAndNoLeaks) {
#ifdef KELVANE_SANITIZED_BUILD
    GTEST_SKIP() << "sanitizer build: AddressSanitizer already checks every run";
#endif
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    ZsetRunOptions options;
    options.wrapper = {"valgrind", "--error-exitcode=99", "--leak-check=full",
                       "--errors-for-leak-kinds=definite,indirect", "-q"};
    options.timeout_s = 500;
    const ZsetRun run = run_zset(options);

    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    const Transcript t = parse_transcript(run.out);
    EXPECT_TRUE(t.well_formed);
    EXPECT_EQ(count_passed(t), kCases);
    EXPECT_EQ(t.summary, summary_line(kCases, 0));
}

}  // namespace
}  // namespace kelvane_test
