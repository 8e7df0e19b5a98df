// command_runner.h -- runs any program as a user would from a shell: given standard input, captured standard
// output and error, extra environment, a working directory, a deadline and an optional action in the middle of
// the run. For the tests of zset, zset-report, the run script and an installed tree.
#ifndef KELVANE_TESTS_COMMAND_RUNNER_H
#define KELVANE_TESTS_COMMAND_RUNNER_H

#include <functional>
#include <string>
#include <vector>

namespace kelvane_test {

struct CommandResult {
    std::string out;
    std::string err;
    int exit_code = -1;  // -1 when it did not exit normally
    int signal = 0;      // the signal that ended it, if one did
    double seconds = 0;
};

struct CommandOptions {
    std::string input;             // standard input (empty: an empty file)
    std::vector<std::string> env;  // extra "NAME=value" entries, overriding inherited ones
    std::string dir;               // working directory; empty: the test's own
    int timeout_s = 120;           // killed after this long
    int during_after_ms = 0;       // `during` is called once, this long after the start (0: never)
    std::function<void()> during;
};

// argv[0] is looked up on PATH. Throws if the program cannot be started.
CommandResult run_command(const std::vector<std::string>& argv, const CommandOptions& options = {});

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// A directory under /tmp that lives as long as the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_COMMAND_RUNNER_H
