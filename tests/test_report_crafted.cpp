// test_report_crafted.cpp -- zset-report on transcripts no correct zset run prints: cut off at every line,
// carrying binary junk, retitled, miscounted, saved with CRLF line ends; and on bad arguments. Whatever the bytes,
// the report must be well-formed XML whose counts agree with its testcases, every one of zset's cases must be
// there, and only a complete, clean run of zset's own 68 cases may exit 0. The transcripts start from a real
// clean run.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "fault_injector.h"
#include "report_fixture.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

// The cases of the report that stand for zset's cases (not the run's own entries nor outside checks).
std::vector<JunitCase> zset_testcases(const JunitDocument& doc) {
    std::vector<JunitCase> out;
    for (const auto& c : doc.cases) {
        if (c.suite != "run" && c.name.find("outside any case") == std::string::npos) out.push_back(c);
    }
    return out;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

TEST(ReportOfCraftedTranscripts, RunsCutOffAnywhereCountWhatRanAndReportTheRestAsErrors) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string& full = clean_transcript();
    const std::vector<RawCase> titles = raw_cases(full);
    ASSERT_EQ(titles.size(), static_cast<size_t>(kCases));
    std::vector<size_t> cuts;
    for (size_t i = 0; i < full.size(); ++i) {
        if (full[i] == '\n') cuts.push_back(i + 1), cuts.push_back(i > 3 ? i - 3 : 0);
    }
    cuts.push_back(0);
    for (const size_t cut : cuts) {
        if (cut + 1 >= full.size()) continue;  // the whole run, with or without its last newline
        const std::string prefix = full.substr(0, cut);
        size_t verdicts = 0;
        for (size_t at = prefix.find("== PASSED ==\n"); at != std::string::npos;
             at = prefix.find("== PASSED ==\n", at + 1)) {
            ++verdicts;
        }
        const ReportRun r = report_on(prefix);
        SCOPED_TRACE("cut after " + std::to_string(cut) + " bytes");
        EXPECT_EQ(r.run.exit_code, 1);
        ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
        EXPECT_TRUE(r.junit.counts_agree());
        const std::vector<JunitCase> cases = zset_testcases(r.junit);
        ASSERT_EQ(cases.size(), static_cast<size_t>(kCases));
        for (size_t k = 0; k < cases.size(); ++k) {
            EXPECT_EQ(cases[k].name, titles[k].title);
            EXPECT_EQ(cases[k].kind, k < verdicts ? "" : "error") << cases[k].name;
        }
        const auto run_faults = r.junit.cases.size() - cases.size();
        EXPECT_EQ(run_faults, 1u) << "the missing summary";
        if (verdicts + 1 < static_cast<size_t>(kCases)) {
            EXPECT_NE(r.run.out.find("NOT RUN"), std::string::npos) << r.run.out;
        }
    }
}

// Every kind of byte a line can hold, and how each must read back from the report once XML is decoded.
TEST(ReportOfCraftedTranscripts, BytesXmlCannotCarryShowAsVisibleEscapes) {
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
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error << r.xml;
    EXPECT_TRUE(r.junit.counts_agree());
    ASSERT_EQ(r.junit.cases.size(), static_cast<size_t>(kCases + 1));  // and the run's note on the retitled case
    const JunitCase& first = r.junit.cases[0];
    EXPECT_EQ(first.kind, "failure");
    EXPECT_EQ(first.message, "Condition=[" + shown + "] HAS FAILED at zset.cpp line 1");
    EXPECT_EQ(first.text, first.message + "\n");
    EXPECT_EQ(first.system_out, shown + "\n");
    const std::vector<std::string> labels = case_labels();
    const std::vector<JunitCase> cases = zset_testcases(r.junit);
    ASSERT_EQ(cases.size(), labels.size());
    for (size_t k = 0; k < cases.size(); ++k) {
        if (labels[k] == "ZSCORE 2") EXPECT_EQ(cases[k].name, "ZSCORE " + shown);
    }
    for (const char c : r.run.out) {
        EXPECT_TRUE(c == '\n' || c == '\t' || static_cast<unsigned char>(c) >= 0x20) << "raw byte in the listing";
    }
}

// Output that is not zset's (a library printing on standard output, say) is kept with the case it appeared in and
// changes no verdict; a single endless line is shortened.
TEST(ReportOfCraftedTranscripts, OtherOutputIsKeptWithItsCaseAndChangesNoVerdict) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string huge(1 << 20, 'x');
    std::string t = replaced(clean_transcript(), "== ZREM zset foo - foo exists ==\n",
                             "== ZREM zset foo - foo exists ==\nlibrary says hello\n" + huge + "\n");
    t = "banner before the run\n" + t + "and something after it\n";
    const ReportRun r = report_on(t);
    EXPECT_EQ(r.run.exit_code, 0) << r.run.out;
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    ASSERT_EQ(r.junit.cases.size(), static_cast<size_t>(kCases));
    EXPECT_EQ(r.junit.cases.front().system_out, "banner before the run\n");
    EXPECT_EQ(r.junit.cases.back().system_out, "and something after it\n");
    for (const auto& c : r.junit.cases) {
        if (c.name != "ZREM zset foo - foo exists") continue;
        EXPECT_EQ(c.system_out.rfind("library says hello\n" + std::string(4096, 'x') + "... (", 0), 0u);
        EXPECT_LT(c.system_out.size(), 5000u);
    }
}

// Random junk at random places: never a crash, always XML that agrees with itself.
TEST(ReportOfCraftedTranscripts, RandomJunkNeverBreaksTheReport) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::vector<std::string> lines = lines_of(clean_transcript());
    std::mt19937 rng(20240611);
    auto junk = [&] {
        std::string s(std::uniform_int_distribution<size_t>(0, 120)(rng), '\0');
        for (char& c : s) c = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(rng));
        return s;
    };
    const std::vector<std::string> frames = {"", "== ", "Condition=[", "===============================",
                                             "== PASSED ==", "== FAILED =="};
    for (int round = 0; round < 150; ++round) {
        std::string t;
        bool only_foreign = true;  // every line added is someone else's output: zset's verdicts still stand
        for (const std::string& line : lines) {
            if (std::uniform_int_distribution<int>(0, 40)(rng) == 0) {
                const std::string& frame = frames[std::uniform_int_distribution<size_t>(0, frames.size() - 1)(rng)];
                std::string added = frame + junk();
                if (frame == "== ") added += " ==";
                if (frame == "Condition=[") added += "] HAS FAILED at zset.cpp line 9";
                for (const std::string& piece : lines_of(added)) {
                    if (!piece.empty() && (piece[0] == '=' || piece.rfind("Condition=[", 0) == 0)) only_foreign = false;
                }
                t += added + "\n";
            }
            t += line + "\n";
        }
        const ReportRun r = report_on(t);
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_TRUE(r.run.exit_code == 0 || r.run.exit_code == 1) << r.run.err;
        ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
        EXPECT_TRUE(r.junit.counts_agree());
        EXPECT_GE(r.junit.cases.size(), static_cast<size_t>(kCases));
        if (only_foreign) EXPECT_EQ(r.run.exit_code, 0) << r.run.out;
    }
    // Nothing but junk: every case missing.
    std::string all_bytes;
    for (int b = 0; b < 256; ++b) all_bytes += static_cast<char>(b);
    const ReportRun r = report_on(all_bytes + all_bytes);
    EXPECT_EQ(r.run.exit_code, 1);
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    EXPECT_EQ(r.junit.of_kind("error").size(), static_cast<size_t>(kCases + 1));
}

TEST(ReportOfCraftedTranscripts, TranscriptsThatAreNotZsetsFailTheRun) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string& clean = clean_transcript();
    const std::string summary = summary_line(kCases, 0);
    const struct {
        std::string name, transcript, says;
    } variants[] = {
        {"miscounted", replaced(clean, summary, summary_line(67, 1)), "the summary counts 67 passed and 1 failed"},
        {"retitled", replaced(clean, "== ZCARD - sorted sets ==", "== ZCARD - something else =="), "is titled"},
        {"stray verdict", replaced(clean, "== PASSED ==\n", "== PASSED ==\n== PASSED ==\n"), "outside any case"},
        {"extra case", replaced(clean, summary, "== ZEXTRA ==\n== PASSED ==\n\n" + summary), "does not run"},
        {"no summary", replaced(clean, summary + "\n", ""), "no summary line"},
    };
    for (const auto& v : variants) {
        const ReportRun r = report_on(v.transcript);
        EXPECT_EQ(r.run.exit_code, 1) << v.name;
        ASSERT_TRUE(r.junit.well_formed()) << v.name << r.junit.parse_error;
        EXPECT_TRUE(r.junit.counts_agree()) << v.name;
        bool said = false;
        for (const auto& c : r.junit.of_kind("error")) said = said || c.text.find(v.says) != std::string::npos;
        EXPECT_TRUE(said) << v.name << "\n" << r.xml;
        EXPECT_NE(r.run.out.find(v.says), std::string::npos) << v.name << "\n" << r.run.out;
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
    const std::vector<std::vector<std::string>> bad = {
        {"--no-such-option"},
        {dir / "missing"},
        {"--junit", dir / "no/such/dir/r.xml", dir / "t"},
        {"--zset-status", "eleven", dir / "t"},
        {"--zset-status", "256", dir / "t"},
        {"--junit"},
        {dir / "t", dir / "t"},
    };
    for (const auto& args : bad) {
        std::vector<std::string> argv = {KELVANE_ZSET_REPORT};
        argv.insert(argv.end(), args.begin(), args.end());
        const CommandResult r = run_command(argv);
        EXPECT_EQ(r.exit_code, 2) << args.front();
        EXPECT_NE(r.err, "") << args.front();
    }
    const CommandResult help = run_command({KELVANE_ZSET_REPORT, "--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("usage: zset-report"), std::string::npos);
}

}  // namespace
}  // namespace kelvane_test
