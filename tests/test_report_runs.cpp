// test_report_runs.cpp -- zset-report on transcripts of real zset runs: a clean run, runs against a library with a
// fault (fault_injector.cpp), a run without a server, and a clean transcript from a zset that then crashed. The
// listing must name every case that did not pass with its failure lines, the JUnit report must hold one testcase
// per case in zset's suites, and the exit status must say whether the run proves the library right.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fault_injector.h"
#include "report_fixture.h"

namespace kelvane_test {
namespace {

std::string joined(const std::vector<std::string>& lines) {
    std::string s;
    for (const auto& l : lines) s += l + "\n";
    return s;
}

TEST(ReportOfRuns, CleanRunPassesWithOneTestcasePerCaseInZsetsSuites) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string& transcript = clean_transcript();
    const std::vector<RawCase> cases = raw_cases(transcript);
    ASSERT_EQ(cases.size(), static_cast<size_t>(kCases));

    const ReportRun file = report_on(transcript);
    EXPECT_EQ(file.run.exit_code, 0);
    EXPECT_EQ(file.run.out, "zset-report: PASSED, 68 of 68 cases passed\n");
    EXPECT_EQ(file.run.err, "");
    const JunitDocument& doc = file.junit;
    ASSERT_TRUE(doc.well_formed()) << doc.parse_error;
    EXPECT_TRUE(doc.counts_agree()) << file.xml;
    EXPECT_EQ(doc.tests, kCases);
    EXPECT_EQ(doc.failures, 0);
    EXPECT_EQ(doc.errors, 0);
    ASSERT_EQ(doc.suites.size(), zset_suites().size());
    size_t k = 0;
    for (size_t s = 0; s < doc.suites.size(); ++s) {
        const auto& [suite, count] = zset_suites()[s];
        EXPECT_EQ(doc.suites[s].name, suite);
        EXPECT_EQ(doc.suites[s].tests, count) << suite;
        for (int n = 0; n < count && k < doc.cases.size(); ++n, ++k) {
            EXPECT_EQ(doc.cases[k].name, cases[k].title);
            EXPECT_EQ(doc.cases[k].suite, suite) << cases[k].title;
            EXPECT_EQ(doc.cases[k].classname, "zset." + suite);
        }
    }
    EXPECT_EQ(k, static_cast<size_t>(kCases));

    // Standard input reads the same.
    const ReportRun piped = report_on(transcript, {}, true);
    EXPECT_EQ(piped.run.exit_code, 0);
    EXPECT_EQ(piped.run.out, file.run.out);
    EXPECT_EQ(piped.xml, file.xml);
}

// A fault whose cases fail with one and with several failure lines each (ZRANGEBYSCORE 2, 3, 6, 7).
TEST(ReportOfRuns, FailedCasesComeWithEveryFailureLineInListingAndReport) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string transcript = zset_transcript("range_tie_order");
    const std::vector<RawCase> cases = raw_cases(transcript);
    ASSERT_EQ(cases.size(), static_cast<size_t>(kCases));

    const ReportRun r = report_on(transcript);
    EXPECT_EQ(r.run.exit_code, 1);
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    EXPECT_TRUE(r.junit.counts_agree());
    ASSERT_EQ(r.junit.cases.size(), static_cast<size_t>(kCases));
    const std::vector<std::string> labels = case_labels();
    std::string expected_listing;
    int failed = 0;
    for (size_t k = 0; k < cases.size(); ++k) {
        const RawCase& c = cases[k];
        const JunitCase& j = r.junit.cases[k];
        EXPECT_EQ(j.name, c.title);
        if (c.passed) {
            EXPECT_EQ(j.kind, "") << c.title;
            continue;
        }
        ++failed;
        ASSERT_FALSE(c.failure_lines.empty());
        EXPECT_EQ(j.kind, "failure") << c.title;
        EXPECT_EQ(j.text, joined(c.failure_lines)) << c.title;
        const size_t more = c.failure_lines.size() - 1;
        EXPECT_EQ(j.message, c.failure_lines[0] + (more ? " (and " + std::to_string(more) + " more)" : ""));
        expected_listing += "FAILED " + labels[k] + " \"" + c.title + "\"\n";
        for (const auto& line : c.failure_lines) expected_listing += "    " + line + "\n";
    }
    EXPECT_EQ(failed, 4);
    EXPECT_EQ(r.run.out, expected_listing + "zset-report: FAILED, 64 of 68 cases passed, 4 failed\n");
}

// zset's registration check stands before the first case: a library that answers it wrongly but works fails the
// run although every case passes.
TEST(ReportOfRuns, TheRegistrationLineBeforeTheFirstCaseFailsTheRun) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const std::string transcript = zset_transcript("server_add_status");
    const std::string registration = transcript.substr(0, transcript.find('\n'));
    ASSERT_EQ(registration.rfind("Condition=[kv_server_add(", 0), 0u) << transcript;

    const ReportRun r = report_on(transcript);
    EXPECT_EQ(r.run.exit_code, 1);
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    EXPECT_TRUE(r.junit.counts_agree());
    ASSERT_EQ(r.junit.cases.size(), static_cast<size_t>(kCases + 1));
    const JunitCase& outside = r.junit.cases.front();
    EXPECT_EQ(outside.suite, "ZADD");
    EXPECT_EQ(outside.kind, "failure");
    EXPECT_EQ(outside.message, registration);
    EXPECT_NE(outside.name.find("outside any case"), std::string::npos) << outside.name;
    EXPECT_NE(outside.name.find("ZADD zset 10 foo - add a new value to zset"), std::string::npos) << outside.name;
    EXPECT_EQ(r.junit.of_kind("").size(), static_cast<size_t>(kCases));
    EXPECT_NE(r.run.out.find("\n    " + registration + "\n"), std::string::npos) << r.run.out;
    EXPECT_NE(r.run.out.find("zset-report: FAILED, 68 of 68 cases passed, 1 failure line outside any case\n"),
              std::string::npos)
        << r.run.out;
}

// Without a server every case fails, and two checks fail outside any case: the registration before the first
// case and the ZSCORE suite's set-up before its first case. Each lands in the suite of the case that follows it.
TEST(ReportOfRuns, WithoutAServerEveryCaseAndBothOutsideChecksAreReported) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const ReportRun r = report_on(no_server_transcript());
    EXPECT_EQ(r.run.exit_code, 1);
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    EXPECT_TRUE(r.junit.counts_agree());
    EXPECT_EQ(r.junit.cases.size(), static_cast<size_t>(kCases + 2));
    EXPECT_EQ(r.junit.failures, kCases + 2);
    std::vector<std::string> outside_suites;
    for (const auto& c : r.junit.cases) {
        if (c.name.find("outside any case") != std::string::npos) outside_suites.push_back(c.suite);
    }
    EXPECT_EQ(outside_suites, (std::vector<std::string>{"ZADD", "ZSCORE"}));
    EXPECT_NE(r.run.out.find("zset-report: FAILED, 0 of 68 cases passed, 68 failed, 2 failure lines outside any "
                             "case\n"),
              std::string::npos)
        << r.run.out;
}

// A complete transcript does not make a clean run when zset itself ended badly.
TEST(ReportOfRuns, ZsetsOwnExitStatusCountsWhenGiven) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    EXPECT_EQ(report_on(clean_transcript(), {"--zset-status", "0"}).run.exit_code, 0);
    const struct {
        const char* status;
        const char* says;
    } endings[] = {{"139", "killed by signal 11"}, {"124", "did not finish in time"}, {"3", "exited with status 3"}};
    for (const auto& ending : endings) {
        const ReportRun r = report_on(clean_transcript(), {"--zset-status", ending.status});
        EXPECT_EQ(r.run.exit_code, 1) << ending.status;
        ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
        const auto errors = r.junit.of_kind("error");
        ASSERT_EQ(errors.size(), 1u) << ending.status;
        EXPECT_EQ(errors[0].suite, "run");
        EXPECT_NE(errors[0].message.find(ending.says), std::string::npos) << errors[0].message;
        EXPECT_NE(r.run.out.find(ending.says), std::string::npos) << r.run.out;
        EXPECT_EQ(r.junit.of_kind("").size(), static_cast<size_t>(kCases));
    }
}

}  // namespace
}  // namespace kelvane_test
