// run_script.h -- scripts/run-zset.sh run on this build as a user would, from a scratch working directory, for the
// tests of the run script and of the reports of the runs it makes. Uses the test program's KELVANE_SOURCE_DIR and
// KELVANE_BUILD_DIR.
#ifndef KELVANE_TESTS_RUN_SCRIPT_H
#define KELVANE_TESTS_RUN_SCRIPT_H

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "command_runner.h"
#include "junit_document.h"

namespace kelvane_test {

struct ScriptRun {
    CommandResult run;
    JunitDocument junit;
};

// run-zset.sh --no-build --build-dir <this build> <args>, from a temporary working directory; the report, if asked
// for with --junit report.xml, is read back. meanwhile, if given, runs once while the script runs, from its start.
inline ScriptRun run_script(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                            std::function<void()> meanwhile = {}) {
    TempDir cwd;
    std::vector<std::string> argv = {std::string(KELVANE_SOURCE_DIR) + "/scripts/run-zset.sh", "--no-build",
                                     "--build-dir", KELVANE_BUILD_DIR};
    argv.insert(argv.end(), args.begin(), args.end());
    CommandOptions options;
    options.dir = cwd.path();
    options.env = env;
    options.timeout_s = 180;
    if (meanwhile) {
        options.during_after_ms = 1;
        options.during = std::move(meanwhile);
    }
    ScriptRun r{run_command(argv, options), {}};
    if (std::filesystem::exists(cwd / "report.xml")) r.junit = read_junit(read_file(cwd / "report.xml"));
    else r.junit.parse_error = "no report";
    return r;
}

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_RUN_SCRIPT_H
