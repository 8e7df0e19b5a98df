// command_runner.cpp -- posix_spawn with three pipes and a poll loop, so that a program that writes a lot on both
// outputs, or reads its input slowly, never blocks the test.
#include "command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace kelvane_test {
namespace {

// The inherited environment with the given entries put over it.
std::vector<std::string> merged_environment(const std::vector<std::string>& extra) {
    std::map<std::string, std::string> entries;
    auto put = [&](const std::string& e) { entries[e.substr(0, e.find('='))] = e; };
    for (char** e = environ; *e; ++e) put(*e);
    for (const auto& e : extra) put(e);
    std::vector<std::string> out;
    for (auto& [name, entry] : entries) out.push_back(entry);
    return out;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> p;
    for (auto& s : strings) p.push_back(s.data());
    p.push_back(nullptr);
    return p;
}

}  // namespace

CommandResult run_command(const std::vector<std::string>& argv_in, const CommandOptions& options) {
    int in_pipe[2], out_pipe[2], err_pipe[2];
    if (pipe2(in_pipe, O_CLOEXEC) != 0 || pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in_pipe[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err_pipe[1], 2);
    if (!options.dir.empty()) posix_spawn_file_actions_addchdir_np(&actions, options.dir.c_str());

    std::vector<std::string> args = argv_in;
    std::vector<std::string> env = merged_environment(options.env);
    std::vector<char*> argv = pointers(args), envp = pointers(env);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(in_pipe[0]);
    close(out_pipe[1]);
    close(err_pipe[1]);
    if (rc != 0) {
        close(in_pipe[1]), close(out_pipe[0]), close(err_pipe[0]);
        throw std::runtime_error("cannot start " + args[0]);
    }

    // A reader that stops early must not kill the test with SIGPIPE.
    signal(SIGPIPE, SIG_IGN);
    CommandResult result;
    size_t written = 0;
    int in_fd = in_pipe[1];
    if (options.input.empty()) close(in_fd), in_fd = -1;
    bool out_open = true, err_open = true, killed = false;
    while (out_open || err_open) {
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (!killed && elapsed > options.timeout_s) {
            kill(pid, SIGKILL);
            killed = true;
        }
        pollfd fds[3] = {{out_open ? out_pipe[0] : -1, POLLIN, 0},
                         {err_open ? err_pipe[0] : -1, POLLIN, 0},
                         {in_fd, POLLOUT, 0}};
        poll(fds, 3, 50);
        char buf[65536];
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents == 0) continue;
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                (i == 0 ? out_open : err_open) = false;
            }
        }
        if (in_fd >= 0 && fds[2].revents != 0) {
            const ssize_t n = (fds[2].revents & POLLOUT)
                                  ? write(in_fd, options.input.data() + written, options.input.size() - written)
                                  : -1;
            if (n > 0) written += static_cast<size_t>(n);
            if (n <= 0 || written == options.input.size()) close(in_fd), in_fd = -1;
        }
    }
    if (in_fd >= 0) close(in_fd);
    int status = 0;
    waitpid(pid, &status, 0);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

CommandResult run_shell(const std::string& script, const CommandOptions& options) {
    return run_command({"/bin/sh", "-c", script}, options);
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
    out << bytes;
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
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
