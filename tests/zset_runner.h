// zset_runner.h -- runs the built zset program as a user would and captures
// what it prints, for the tests that judge its transcript.
#ifndef KELVANE_TESTS_ZSET_RUNNER_H
#define KELVANE_TESTS_ZSET_RUNNER_H

#include <functional>
#include <string>
#include <vector>

namespace kelvane_test {

struct ZsetRun {
    std::string out;  // standard output, whole
    std::string err;  // standard error, whole
    int exit_code = -1;  // -1 when it did not exit normally
    int signal = 0;      // the signal that ended it, if one did
    double seconds = 0;
};

struct ZsetRunOptions {
    // Extra environment entries ("NAME=value"), e.g. LD_PRELOAD.
    std::vector<std::string> env;
    // A command put in front of zset, e.g. {"valgrind", "--error-exitcode=99"}.
    std::vector<std::string> wrapper;
    // Called once, this many milliseconds after zset started (0: never).
    int during_after_ms = 0;
    std::function<void()> during;
    // zset is killed after this long.
    int timeout_s = 120;
};

// The path of the zset binary under test (set by the build).
std::string zset_path();

ZsetRun run_zset(const ZsetRunOptions& options = {});

// The transcript split into lines (without their newlines).
std::vector<std::string> lines_of(const std::string& text);

// One case of a transcript: its title, the condition texts of its failure
// lines, and its verdict.
struct CaseResult {
    std::string title;
    std::vector<std::string> failed_conditions;
    bool passed = false;
};

struct Transcript {
    std::vector<std::string> preamble_failures;  // failure lines before the first header
    std::vector<CaseResult> cases;
    std::string summary;  // the last line
    bool well_formed = false;  // every header has one verdict, each followed by an empty line
};

Transcript parse_transcript(const std::string& out);

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_ZSET_RUNNER_H
