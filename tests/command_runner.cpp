// command_runner.cpp -- posix_spawn with two output pipes and a poll loop, so that a program that writes a lot on
// both outputs never blocks the test. Standard input is an in-memory file, so it never blocks either.
#include "command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace kelvane_test {
namespace {

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> p;
    for (auto& s : strings) p.push_back(s.data());
    p.push_back(nullptr);
    return p;
}

}  // namespace

CommandResult run_command(const std::vector<std::string>& argv_in, const CommandOptions& options) {
    // The inherited environment with the given entries put over it.
    std::map<std::string, std::string> entries;
    for (char** e = environ; *e; ++e) entries[std::string(*e).substr(0, std::string(*e).find('='))] = *e;
    for (const auto& e : options.env) entries[e.substr(0, e.find('='))] = e;
    std::vector<std::string> env, args = argv_in;
    for (const auto& [name, entry] : entries) env.push_back(entry);

    const int in_fd = memfd_create("stdin", MFD_CLOEXEC);
    int pipes[2][2];
    if (in_fd < 0 || write(in_fd, options.input.data(), options.input.size()) < 0 || lseek(in_fd, 0, SEEK_SET) != 0 ||
        pipe2(pipes[0], O_CLOEXEC) != 0 || pipe2(pipes[1], O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot set up the standard streams");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in_fd, 0);
    posix_spawn_file_actions_adddup2(&actions, pipes[0][1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipes[1][1], 2);
    if (!options.dir.empty()) posix_spawn_file_actions_addchdir_np(&actions, options.dir.c_str());
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0].c_str(), &actions, nullptr, pointers(args).data(), pointers(env).data());
    posix_spawn_file_actions_destroy(&actions);
    close(in_fd), close(pipes[0][1]), close(pipes[1][1]);
    if (rc != 0) {
        close(pipes[0][0]), close(pipes[1][0]);
        throw std::runtime_error("cannot start " + args[0]);
    }

    CommandResult result;
    std::string* sinks[2] = {&result.out, &result.err};
    pollfd fds[2] = {{pipes[0][0], POLLIN, 0}, {pipes[1][0], POLLIN, 0}};
    bool during_due = options.during && options.during_after_ms > 0, killed = false;
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - start).count();
        if (during_due && elapsed >= options.during_after_ms) options.during(), during_due = false;
        if (!killed && elapsed > options.timeout_s * 1000L) killed = ::kill(pid, SIGKILL) == 0;
        poll(fds, 2, 10);
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[65536];
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) sinks[i]->append(buf, static_cast<size_t>(n));
            else close(fds[i].fd), fds[i].fd = -1;
        }
    }
    if (during_due) options.during();
    int status = 0;
    waitpid(pid, &status, 0);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!(out << bytes).flush()) throw std::runtime_error("cannot write " + path);
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/kelvane-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace kelvane_test
