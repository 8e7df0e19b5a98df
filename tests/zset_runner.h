// zset_runner.h -- runs the built zset program as a user would and reads what it prints, for the tests that
// judge its transcript.
#ifndef KELVANE_TESTS_ZSET_RUNNER_H
#define KELVANE_TESTS_ZSET_RUNNER_H

#include <string>
#include <vector>

#include "command_runner.h"

namespace kelvane_test {

using ZsetRun = CommandResult;

// The environment (e.g. LD_PRELOAD), deadline and action in the middle of the run, and a command put in front of
// zset, e.g. {"valgrind", "-q"}.
struct ZsetRunOptions : CommandOptions {
    std::vector<std::string> wrapper;
};

ZsetRun run_zset(const ZsetRunOptions& options = {});

// The text split into lines (without their newlines).
std::vector<std::string> lines_of(const std::string& text);

// One case of a transcript: its title, its failure lines whole and their condition texts, and its verdict.
struct CaseResult {
    std::string title;
    std::vector<std::string> failed_conditions;
    bool passed = false;
    std::vector<std::string> failure_lines;
};

struct Transcript {
    std::vector<std::string> preamble_failures;  // condition texts of failure lines before the first header
    std::vector<CaseResult> cases;
    std::string summary;  // the last line
    bool well_formed = false;  // every header has one verdict, each followed by an empty line
};

Transcript parse_transcript(const std::string& out);

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_ZSET_RUNNER_H
