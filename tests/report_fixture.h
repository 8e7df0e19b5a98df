// report_fixture.h -- what the tests of zset-report share: running the reader on a transcript (from a file or
// standard input) and reading back its JUnit report; real transcripts of zset made against a private server;
// and zset's suites as the report must group them.
#ifndef KELVANE_TESTS_REPORT_FIXTURE_H
#define KELVANE_TESTS_REPORT_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "command_runner.h"
#include "junit_document.h"

namespace kelvane_test {

#ifndef KELVANE_ZSET_REPORT
#error "the build must define KELVANE_ZSET_REPORT"
#endif

struct ReportRun {
    CommandResult run;   // zset-report's exit status, listing (out) and messages (err)
    JunitDocument junit;
    std::string xml;
};

// zset-report --junit <tmp> [extra...] on the transcript, given as a file or, with from_stdin, on standard input.
ReportRun report_on(const std::string& transcript, const std::vector<std::string>& extra = {},
                    bool from_stdin = false);

// zset's 18 suites in run order with their numbers of cases.
const std::vector<std::pair<std::string, int>>& zset_suites();
// The 68 cases named by suite and position, "ZADD 1" to "ZREMRANGEBYRANK 2".
std::vector<std::string> case_labels();

// A case of a transcript as the raw lines show it: its title and its failure lines, whole.
struct RawCase {
    std::string title;
    std::vector<std::string> failure_lines;
    bool passed = false;
};
std::vector<RawCase> raw_cases(const std::string& transcript);

// Transcripts of real zset runs, each against a fresh private server on 127.0.0.1:12345 (none for
// no_server_transcript), with the fault injector's fault ("" for none).
std::string zset_transcript(const std::string& fault = "");
std::string no_server_transcript();

// The clean transcript, made once per test process.
const std::string& clean_transcript();

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_REPORT_FIXTURE_H
