// child_process.cpp -- posix_spawn with the output redirected, and reaping.
#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kelvane_model {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& log_path) : log_path_(log_path) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::vector<std::string> args = argv;
    std::vector<char*> raw;
    for (auto& a : args) raw.push_back(a.data());
    raw.push_back(nullptr);
    const int error = posix_spawn(&pid_, raw[0], &actions, nullptr, raw.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(error));
}

ChildProcess::~ChildProcess() {
    if (!ended_) kill();
}

bool ChildProcess::wait_until(std::chrono::steady_clock::time_point deadline) {
    while (!ended_) {
        const pid_t done = waitpid(pid_, &status_, WNOHANG);
        if (done == pid_) {
            ended_ = true;
            break;
        }
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

void ChildProcess::kill() {
    if (ended_ || pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
    ended_ = true;
}

bool ChildProcess::exited_cleanly() const { return ended_ && WIFEXITED(status_) && WEXITSTATUS(status_) == 0; }

std::string ChildProcess::how_it_ended() const {
    if (!ended_) return "still running";
    if (WIFEXITED(status_)) return "exit status " + std::to_string(WEXITSTATUS(status_));
    if (WIFSIGNALED(status_)) {
        return "signal " + std::to_string(WTERMSIG(status_)) + " (" + strsignal(WTERMSIG(status_)) + ")";
    }
    return "ended oddly";
}

std::string ChildProcess::log_tail(size_t max_bytes) const {
    std::ifstream in(log_path_);
    std::stringstream all;
    all << in.rdbuf();
    const std::string text = all.str();
    return text.size() <= max_bytes ? text : "..." + text.substr(text.size() - max_bytes);
}

}  // namespace kelvane_model
