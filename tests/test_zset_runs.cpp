// test_zset_runs.cpp -- whole runs of zset as users make them: against a fresh server, with no server at all,
// with the server killed or frozen in the middle of the run, and under valgrind.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "fault_injector.h"
#include "redis_server.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

// A complete run: exit 0, nothing on standard error (where the injector reports buffers never released), 68
// cases each with its verdict, and a summary whose counts are the verdicts'. Gives the number passed.
int expect_complete(const ZsetRun& run, Transcript* out = nullptr) {
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.err, "");
    const Transcript t = parse_transcript(run.out);
    EXPECT_TRUE(t.well_formed) << run.out;
    EXPECT_EQ(t.cases.size(), static_cast<size_t>(kCases)) << run.out;
    const int passed = static_cast<int>(std::count_if(t.cases.begin(), t.cases.end(), [](auto& c) { return c.passed; }));
    EXPECT_EQ(t.summary, summary_line(passed, static_cast<int>(t.cases.size()) - passed));
    for (const auto& c : t.cases) EXPECT_EQ(c.passed, c.failed_conditions.empty()) << c.title;
    if (out) *out = t;
    return passed;
}

ZsetRun run_with(const std::string& fault, int timeout_s = 60) {
    ZsetRunOptions options;
    options.env = injector_env(fault);
    options.timeout_s = timeout_s;
    return run_zset(options);
}

TEST(ZsetRun, CleanRunPassesEveryCaseAndReleasesEverything) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    ZsetRun run;
    {
        RedisServer server(kZsetPort);
        run = run_with("");  // no fault: only the release check
    }
    Transcript t;
    EXPECT_EQ(expect_complete(run, &t), kCases);
    // Byte for byte: per case the header, "== PASSED ==" and an empty line; then the summary and its newline.
    std::string expected;
    for (const auto& c : t.cases) expected += "== " + c.title + " ==\n== PASSED ==\n\n";
    EXPECT_EQ(run.out, expected + summary_line(kCases, 0) + "\n");

    // Arguments are ignored: the same run with some, on a fresh server and without the injector, gives the same bytes.
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
    const ZsetRun run = run_with("", 30);  // the error paths release everything too
    Transcript t;
    EXPECT_EQ(expect_complete(run, &t), 0);
    EXPECT_LT(run.seconds, 5.0) << "nothing listens: each call's connection attempts are refused at once";
    EXPECT_TRUE(std::regex_search(run.out, std::regex(R"(^Condition=\[kv_server_add\(client, HOST, PORT, NULL\) == )"
                                                      R"(KV_SUCCESS\] HAS FAILED at zset\.cpp line [1-9][0-9]*\n== )")))
        << run.out;
    // The registration and the ZSCORE set-up are the checks outside any case.
    EXPECT_EQ(t.preamble_failures,
              (std::vector<std::string>{
                  "kv_server_add(client, HOST, PORT, NULL) == KV_SUCCESS",
                  R"(kv_zaddval(client, key, strlen(key), 10, memkey, strlen(memkey), "bar", strlen("bar"), 0) == KV_SUCCESS)"}));
}

TEST(ZsetRun, ServerKilledMidRunStillEndsWithEveryVerdict) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    ZsetRunOptions options;
    // 5 ms more per call stretches the run (about 330 calls) to some seconds, so that the kill lands in its middle.
    options.env = injector_env("slow");
    options.during_after_ms = 150;
    options.during = [&] { server.kill(); };
    options.timeout_s = 60;
    const ZsetRun run = run_zset(options);
    Transcript t;
    expect_complete(run, &t);
    ASSERT_EQ(t.cases.size(), static_cast<size_t>(kCases));
    EXPECT_TRUE(t.cases.front().passed) << "the server went before the run began";
    EXPECT_FALSE(t.cases.back().passed) << "the server never went away";
}

TEST(ZsetRun, FrozenServerCostsEachCallAtMostTheCommandTimeout) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    // zset's client waits 2 s for an answer (kv_client_create(1, 2, mm, 2)). While the server is stopped each call
    // gives up after those 2 s (the next one reconnects, as the kernel still accepts, and waits as long), so a
    // freeze of F = 5 s makes about F / 2 calls fail and lengthens the run by at most F + 2 s. Without the bound
    // the first blocked call would just wait for the thaw and no case would fail.
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
    const ZsetRun run = run_zset(options);
    if (thawer.joinable()) thawer.join();

    Transcript t;
    EXPECT_LT(expect_complete(run, &t), kCases) << "no call gave up while the server was frozen";
    // The slow run itself takes a few seconds; 10 s leaves room for a loaded or sanitized build.
    EXPECT_LT(run.seconds, kFreezeS + kCommandTimeoutS + 10.0);
    ASSERT_EQ(t.cases.size(), static_cast<size_t>(kCases));
    // After the thaw the client is back: the last suite passes.
    EXPECT_TRUE(t.cases[kCases - 2].passed && t.cases[kCases - 1].passed);
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
    EXPECT_EQ(expect_complete(run_zset(options)), kCases);
}

}  // namespace
}  // namespace kelvane_test
