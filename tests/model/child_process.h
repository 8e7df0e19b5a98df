// child_process.h -- a program the test starts and must see end: its
// standard output and error go to a log file, and a child still running
// when the handle goes is killed and reaped, so no test leaves one behind.
#ifndef KELVANE_TESTS_MODEL_CHILD_PROCESS_H
#define KELVANE_TESTS_MODEL_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace kelvane_model {

class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& argv, const std::string& log_path);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Waits for the child to end, at most until deadline; false if it still runs.
    bool wait_until(std::chrono::steady_clock::time_point deadline);
    // SIGKILL and reap.
    void kill();
    bool exited_cleanly() const;  // ended with exit status 0
    // "exit status 2", "signal 6 (Aborted)" or "still running".
    std::string how_it_ended() const;
    const std::string& log_path() const { return log_path_; }
    // The last max_bytes of its log.
    std::string log_tail(size_t max_bytes = 4000) const;

private:
    pid_t pid_ = -1;
    int status_ = 0;
    bool ended_ = false;
    std::string log_path_;
};

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_CHILD_PROCESS_H
