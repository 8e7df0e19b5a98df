// test_report.cpp -- zset-report on transcripts of real zset runs (clean, with a fault from fault_injector.cpp,
// stopped half-way through the run script by its timeout or a crash) and on transcripts no correct run prints: cut
// off at every line, with failure lines outside any case, carrying binary junk or other output, retitled,
// miscounted, with CRLF line ends; and on bad arguments. Whatever the bytes, the JUnit report must be well-formed
// XML whose counts agree with its testcases, one testcase per zset case grouped by suite, failure lines as
// messages; the listing names every case that did not pass; and only a complete, clean run of zset's own 68 cases
// exits 0 (1 otherwise, 2 when it cannot do its job).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "command_runner.h"
#include "fault_injector.h"
#include "junit_document.h"
#include "redis_server.h"
#include "run_script.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

struct ReportRun {
    CommandResult run;  // zset-report's exit status, listing (out) and messages (err)
    JunitDocument junit;
    std::string xml;
};

// zset-report --junit <tmp> [extra...] on the transcript, given as a file or, with from_stdin, on standard input.
// Checks what holds for every transcript: well-formed XML whose counts agree with its testcases.
ReportRun report_on(const std::string& transcript, std::vector<std::string> extra = {}, bool from_stdin = false) {
    TempDir dir;
    write_file(dir / "transcript", transcript);
    std::vector<std::string> argv = {KELVANE_ZSET_REPORT, "--junit", dir / "report.xml"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    CommandOptions options;
    if (from_stdin) options.input = transcript;
    else argv.push_back(dir / "transcript");
    ReportRun r{run_command(argv, options), {}, ""};
    if (std::filesystem::exists(dir / "report.xml")) r.xml = read_file(dir / "report.xml");
    r.junit = read_junit(r.xml);  // no report is no XML either
    EXPECT_TRUE(r.junit.well_formed()) << r.junit.parse_error << "\n" << r.run.err;
    EXPECT_TRUE(r.junit.counts_agree()) << r.xml;
    return r;
}

// zset's transcript against a fresh private server on 127.0.0.1:12345, under the fault injector with the given
// fault ("" for none).
std::string zset_transcript(const std::string& fault) {
    RedisServer server(kZsetPort);
    ZsetRunOptions options;
    options.env = injector_env(fault);
    options.timeout_s = 60;
    const ZsetRun run = run_zset(options);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    return run.out;
}

const std::string& clean_transcript() {  // made once per test process
    static const std::string transcript = zset_transcript("");
    return transcript;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// The position of a case ("ZSCORE 2") in run order.
size_t index_of(const std::string& label) {
    const std::vector<std::string> labels = case_labels();
    return static_cast<size_t>(std::find(labels.begin(), labels.end(), label) - labels.begin());
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(ReportOfRuns, CleanRunPassesFromAFileAndFromStandardInput) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const ReportRun file = report_on(clean_transcript(), {"--zset-status", "0"});
    EXPECT_EQ(file.run.exit_code, 0);
    EXPECT_EQ(file.run.out, "zset-report: PASSED, 68 of 68 cases passed\n");
    EXPECT_EQ(file.run.err, "");
    EXPECT_EQ(file.junit.of_kind("").size(), static_cast<size_t>(kCases));
    const ReportRun piped = report_on(clean_transcript(), {}, true);
    EXPECT_EQ(piped.run.exit_code, 0);
    EXPECT_EQ(piped.xml, file.xml);
}

// One testcase per case, in zset's suites; a fault whose cases fail with one and with several failure lines each
// (ZRANGEBYSCORE 2, 3, 6, 7).
TEST(ReportOfRuns, CasesInTheirSuitesAndFailedOnesWithEveryFailureLineInListingAndReport) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string transcript = zset_transcript("range_tie_order");
    const Transcript t = parse_transcript(transcript);
    ASSERT_EQ(t.cases.size(), static_cast<size_t>(kCases));
    const ReportRun r = report_on(transcript);
    EXPECT_EQ(r.run.exit_code, 1);
    ASSERT_EQ(r.junit.cases.size(), static_cast<size_t>(kCases));
    const std::vector<std::string> labels = case_labels();
    std::string expected_listing;
    for (size_t k = 0; k < t.cases.size(); ++k) {
        const CaseResult& c = t.cases[k];
        const JunitCase& j = r.junit.cases[k];
        const std::string suite = labels[k].substr(0, labels[k].find(' '));
        EXPECT_EQ(j.name, c.title);
        EXPECT_EQ(j.suite, suite) << c.title;
        EXPECT_EQ(j.classname, "zset." + suite);
        EXPECT_EQ(j.kind, c.passed ? "" : "failure") << c.title;
        if (c.passed) continue;
        std::string text;
        for (const auto& line : c.failure_lines) text += line + "\n";
        EXPECT_EQ(j.text, text) << c.title;
        const size_t more = c.failure_lines.size() - 1;
        EXPECT_EQ(j.message, c.failure_lines[0] + (more ? " (and " + std::to_string(more) + " more)" : ""));
        expected_listing += "FAILED " + labels[k] + " \"" + c.title + "\"\n";
        for (const auto& line : c.failure_lines) expected_listing += "    " + line + "\n";
    }
    EXPECT_EQ(r.run.out, expected_listing + "zset-report: FAILED, 64 of 68 cases passed, 4 failed\n");
}

// Failure lines outside any case fail the run even when every case passed. Each lands in the suite of the case
// that follows it; here as zset prints them without a server: the registration before the first case and the
// ZSCORE suite's set-up.
TEST(ReportOfRuns, ChecksOutsideAnyCaseFailTheRun) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string registration =
        "Condition=[kv_server_add(client, HOST, PORT, NULL) == KV_SUCCESS] HAS FAILED at zset.cpp line 9";
    const std::string setup = "Condition=[kv_zaddval(...) == KV_SUCCESS] HAS FAILED at zset.cpp line 99";
    const std::string zscore = "== ZSCORE - zset and memkey found ==\n";
    const ReportRun r = report_on(registration + "\n" + replaced(clean_transcript(), zscore, setup + "\n" + zscore));
    EXPECT_EQ(r.run.exit_code, 1);
    ASSERT_EQ(r.junit.cases.size(), static_cast<size_t>(kCases + 2));
    const JunitCase& outside = r.junit.cases.front();
    EXPECT_EQ(outside.kind, "failure");
    EXPECT_EQ(outside.message, registration);
    EXPECT_TRUE(has(outside.name, "outside any case, before \"ZADD zset 10 foo - add a new value to zset\""));
    EXPECT_EQ(r.junit.of_kind("").size(), static_cast<size_t>(kCases));
    std::vector<std::string> outside_suites;
    for (const auto& c : r.junit.cases) {
        if (has(c.name, "outside any case")) outside_suites.push_back(c.suite);
    }
    EXPECT_EQ(outside_suites, (std::vector<std::string>{"ZADD", "ZSCORE"}));
    auto listed = [](const std::string& before, const std::string& line) {
        return "FAILED checks outside any case, before \"" + before + "\"\n    " + line + "\n";
    };
    EXPECT_EQ(r.run.out, listed("ZADD zset 10 foo - add a new value to zset", registration) +
                             listed("ZSCORE - zset and memkey found", setup) +
                             "zset-report: FAILED, 68 of 68 cases passed, 2 failure lines outside any case\n");
}

// zset stopped by the run script's --timeout (a library call that never returns) and by a crash, both at the same
// library call half-way through the run: every line zset printed reaches the script's output, the same whole lines
// of a clean run both times, and the report counts the finished cases, the one cut off and the rest not run. The
// injector is preloaded into everything the script runs; the script puts a sanitizer build's runtime before it.
TEST(ReportOfRuns, ARunStoppedHalfWayKeepsEveryLineZsetPrinted) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string& clean = clean_transcript();
    std::string first;
    for (const std::string fault : {"hang", "crash"}) {
        SCOPED_TRACE(fault);
        const ScriptRun r = run_script({"--timeout", "1", "--junit", "report.xml"},
                                       {"LD_PRELOAD=" KELVANE_FAULT_INJECTOR, "KELVANE_FAULT=" + fault,
                                        "KELVANE_FAULT_CALL=150"});
        EXPECT_EQ(r.run.exit_code, 1) << r.run.err;
        ASSERT_FALSE(r.run.out.empty()) << r.run.err;
        EXPECT_EQ(r.run.out, clean.substr(0, r.run.out.size()));
        EXPECT_EQ(r.run.out.back(), '\n');
        if (first.empty()) first = r.run.out;
        EXPECT_EQ(r.run.out, first) << "the same call stopped both runs";

        const std::vector<CaseResult> ran = parse_transcript(r.run.out).cases;
        const size_t finished = std::count_if(ran.begin(), ran.end(), [](auto& c) { return c.passed; });
        ASSERT_EQ(ran.size(), finished + 1) << "one case cut off";
        EXPECT_GT(finished, 10u);
        EXPECT_TRUE(has(r.run.err, "zset-report: FAILED, " + std::to_string(finished) + " of 68 cases passed, 1 cut " +
                                       "off, " + std::to_string(kCases - finished - 1) + " not run"))
            << r.run.err;
        ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
        ASSERT_GE(r.junit.cases.size(), static_cast<size_t>(kCases));
        for (size_t k = 0; k < static_cast<size_t>(kCases); ++k) {
            const JunitCase& c = r.junit.cases[k];
            EXPECT_EQ(c.kind, k < finished ? "" : "error") << c.name;
            if (k >= finished) EXPECT_TRUE(has(c.message, k == finished ? "cut off" : "not run")) << c.message;
        }
    }
    EXPECT_FALSE(RedisServer::listening(kZsetPort)) << "the script left its server running";
}

TEST(ReportOfCraftedTranscripts, RunsCutOffAnywhereCountWhatRanAndReportTheRestAsErrors) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string& full = clean_transcript();
    const Transcript whole = parse_transcript(full);
    std::vector<size_t> cuts = {0};
    for (size_t i = 0; i < full.size(); ++i) {
        if (full[i] == '\n') cuts.push_back(i + 1), cuts.push_back(i > 3 ? i - 3 : 0);
    }
    for (const size_t cut : cuts) {
        if (cut + 1 >= full.size()) continue;  // the whole run, with or without its last newline
        SCOPED_TRACE("cut after " + std::to_string(cut) + " bytes");
        const std::string prefix = full.substr(0, cut);
        const std::vector<CaseResult> ran = parse_transcript(prefix).cases;
        const size_t verdicts = std::count_if(ran.begin(), ran.end(), [](auto& c) { return c.passed; });
        const ReportRun r = report_on(prefix);
        EXPECT_EQ(r.run.exit_code, 1);
        // zset's cases, then the run's own entry on the missing summary.
        const std::vector<JunitCase>& cases = r.junit.cases;
        ASSERT_EQ(cases.size(), static_cast<size_t>(kCases + 1));
        EXPECT_EQ(cases.back().suite, "run");
        for (size_t k = 0; k < static_cast<size_t>(kCases); ++k) {
            EXPECT_EQ(cases[k].name, whole.cases[k].title);
            EXPECT_EQ(cases[k].kind, k < verdicts ? "" : "error") << cases[k].name;
        }
        if (verdicts + 1 < static_cast<size_t>(kCases)) EXPECT_TRUE(has(r.run.out, "NOT RUN")) << r.run.out;
    }
}

// Every kind of byte a line can hold, and how each must read back from the report once XML is decoded; output
// that is not zset's (a library printing on standard output, say) stays with the case it appeared in and changes
// no verdict, and a single endless line is shortened.
TEST(ReportOfCraftedTranscripts, BytesXmlCannotCarryShowAsVisibleEscapesAndOtherOutputStaysWithItsCase) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string junk = std::string("a\x01<&\"'\x7f", 7) + std::string("\0", 1) + "\xc3\xa9" + "\xc2\x85" +
                             "\xff" + "\xed\xa0\x80" + "\xef\xbf\xbe" + "\xe2\x82" + "]]>\t\\";
    const std::string shown = "a\\x01<&\"'\\x7f\\x00\xc3\xa9\\xc2\\x85\\xff\\xed\\xa0\\x80\\xef\\xbf\\xbe\\xe2\\x82]]>\t\\\\";
    const std::string title = "ZADD zset 10 foo - add a new value to zset";
    std::string t = replaced(clean_transcript(), "== " + title + " ==\n== PASSED ==",
                             "== " + title + " ==\nCondition=[" + junk + "] HAS FAILED at zset.cpp line 1\n" +
                                 junk + "\n== FAILED ==");
    t = replaced(t, "== ZSCORE - no zset found ==", "== ZSCORE " + junk + " ==");
    const ReportRun r = report_on(t);
    EXPECT_EQ(r.run.exit_code, 1);
    ASSERT_EQ(r.junit.cases.size(), static_cast<size_t>(kCases + 1));  // and the run's note on the retitled case
    const JunitCase& first = r.junit.cases[0];
    EXPECT_EQ(first.kind, "failure");
    EXPECT_EQ(first.message, "Condition=[" + shown + "] HAS FAILED at zset.cpp line 1");
    EXPECT_EQ(first.text, first.message + "\n");
    EXPECT_EQ(first.system_out, shown + "\n");
    EXPECT_EQ(r.junit.cases[index_of("ZSCORE 2")].name, "ZSCORE " + shown);
    for (const char c : r.run.out) {
        EXPECT_TRUE(c == '\n' || c == '\t' || static_cast<unsigned char>(c) >= 0x20) << "raw byte in the listing";
    }

    const std::string huge(1 << 20, 'x');
    t = replaced(clean_transcript(), "== ZREM zset foo - foo exists ==\n",
                 "== ZREM zset foo - foo exists ==\nlibrary says hello\n" + huge + "\n");
    const ReportRun other = report_on("banner before the run\n" + t + "and something after it\n");
    EXPECT_EQ(other.run.exit_code, 0) << other.run.out;
    ASSERT_EQ(other.junit.cases.size(), static_cast<size_t>(kCases));
    EXPECT_EQ(other.junit.cases.front().system_out, "banner before the run\n");
    EXPECT_EQ(other.junit.cases.back().system_out, "and something after it\n");
    const std::string& said = other.junit.cases[index_of("ZREM 1")].system_out;
    EXPECT_EQ(said.rfind("library says hello\n" + std::string(4096, 'x') + "... (", 0), 0u);
    EXPECT_LT(said.size(), 5000u);
}

// Random junk at random places: never a crash, always XML that agrees with itself.
TEST(ReportOfCraftedTranscripts, RandomJunkNeverBreaksTheReport) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::vector<std::string> lines = lines_of(clean_transcript());
    std::mt19937 rng(20240611);
    auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); };
    const std::vector<std::string> frames = {"", "== ", "Condition=[", std::string(31, '='), "== PASSED ==",
                                             "== FAILED =="};
    for (int round = 0; round < 150; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::string t;
        bool only_foreign = true;  // every line added is someone else's output: zset's verdicts still stand
        for (const std::string& line : lines) {
            if (pick(41) == 0) {
                std::string added = frames[pick(static_cast<int>(frames.size()))];
                const bool header = added == "== ", failure = added == "Condition=[";
                for (int n = pick(121); n > 0; --n) added += static_cast<char>(pick(256));
                added += header ? " ==" : failure ? "] HAS FAILED at zset.cpp line 9" : "";
                for (const std::string& piece : lines_of(added)) {
                    if (!piece.empty() && (piece[0] == '=' || piece.rfind("Condition=[", 0) == 0)) only_foreign = false;
                }
                t += added + "\n";
            }
            t += line + "\n";
        }
        const ReportRun r = report_on(t);
        ASSERT_TRUE(r.run.exit_code == 0 || r.run.exit_code == 1) << r.run.err;
        EXPECT_GE(r.junit.cases.size(), static_cast<size_t>(kCases));
        if (only_foreign) EXPECT_EQ(r.run.exit_code, 0) << r.run.out;
    }
    // Nothing but junk: every case missing.
    std::string all_bytes;
    for (int b = 0; b < 512; ++b) all_bytes += static_cast<char>(b);
    const ReportRun r = report_on(all_bytes);
    EXPECT_EQ(r.run.exit_code, 1);
    EXPECT_EQ(r.junit.of_kind("error").size(), static_cast<size_t>(kCases + 1));
}

// Transcripts no clean run of zset prints, and clean transcripts of a zset that then ended badly: each fails the
// run with an error of the run itself that says why.
TEST(ReportOfCraftedTranscripts, TranscriptsThatAreNotZsetsFailTheRun) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string& clean = clean_transcript();
    const std::string summary = summary_line(kCases, 0);
    const struct {
        std::string name, transcript, says;
        std::vector<std::string> args = {};
    } variants[] = {
        {"miscounted", replaced(clean, summary, summary_line(67, 1)), "the summary counts 67 passed and 1 failed"},
        {"retitled", replaced(clean, "== ZCARD - sorted sets ==", "== ZCARD - something else =="), "is titled"},
        {"stray verdict", replaced(clean, "== PASSED ==\n", "== PASSED ==\n== PASSED ==\n"), "outside any case"},
        {"extra case", replaced(clean, summary, "== ZEXTRA ==\n== PASSED ==\n\n" + summary), "does not run"},
        {"no summary", replaced(clean, summary + "\n", ""), "no summary line"},
        {"crashed", clean, "killed by signal 11", {"--zset-status", "139"}},
        {"stopped", clean, "did not finish in time", {"--zset-status", "124"}},
        {"exit 3", clean, "exited with status 3", {"--zset-status", "3"}},
    };
    for (const auto& v : variants) {
        const ReportRun r = report_on(v.transcript, v.args);
        EXPECT_EQ(r.run.exit_code, 1) << v.name;
        const auto errors = r.junit.of_kind("error");
        ASSERT_EQ(errors.size(), 1u) << v.name;
        EXPECT_EQ(errors[0].suite, "run");
        EXPECT_TRUE(has(errors[0].text, v.says)) << v.name << "\n" << r.xml;
        EXPECT_TRUE(has(r.run.out, v.says)) << v.name << "\n" << r.run.out;
    }
    // CRLF line ends read as the run they are.
    std::string crlf;
    for (const std::string& line : lines_of(clean)) crlf += line + "\r\n";
    const ReportRun r = report_on(crlf);
    EXPECT_EQ(r.run.exit_code, 0) << r.run.out;
    EXPECT_EQ(r.xml, report_on(clean).xml);
}

TEST(ReportArguments, BadArgumentsAndUnreadableInputExit2) {
    TempDir dir;
    write_file(dir / "t", "");
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--no-such-option"}, {dir / "missing"}, {dir.path()}, {"--junit", dir / "no/such/dir/r.xml", dir / "t"},
             {"--zset-status", "eleven", dir / "t"}, {"--zset-status", "256", dir / "t"}, {"--junit"},
             {dir / "t", dir / "t"}}) {
        std::vector<std::string> argv = {KELVANE_ZSET_REPORT};
        argv.insert(argv.end(), args.begin(), args.end());
        const CommandResult r = run_command(argv);
        EXPECT_EQ(r.exit_code, 2) << args.front();
        EXPECT_NE(r.err, "") << args.front();
    }
    const CommandResult help = run_command({KELVANE_ZSET_REPORT, "--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_TRUE(has(help.out, "usage: zset-report"));
}

}  // namespace
}  // namespace kelvane_test
