// zset_runner.cpp -- spawning zset with pipes, a deadline and an optional
// action in the middle of the run.
#include "zset_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace kelvane_test {

#ifndef KELVANE_ZSET_PATH
#error "the build must define KELVANE_ZSET_PATH"
#endif

std::string zset_path() { return KELVANE_ZSET_PATH; }

ZsetRun run_zset(const ZsetRunOptions& options) {
    int out_pipe[2], err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err_pipe[1], 2);

    std::vector<std::string> args = options.wrapper;
    args.push_back(zset_path());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_strings;
    for (char** e = environ; *e; ++e) env_strings.emplace_back(*e);
    for (const auto& e : options.env) env_strings.push_back(e);
    std::vector<char*> envp;
    for (auto& e : env_strings) envp.push_back(e.data());
    envp.push_back(nullptr);

    const auto start = std::chrono::steady_clock::now();
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out_pipe[1]);
    close(err_pipe[1]);
    if (rc != 0) {
        close(out_pipe[0]);
        close(err_pipe[0]);
        throw std::runtime_error(std::string("cannot start ") + argv[0]);
    }

    ZsetRun run;
    bool during_done = !options.during || options.during_after_ms <= 0;
    bool out_open = true, err_open = true, killed = false;
    while (out_open || err_open) {
        auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - start).count();
        if (!during_done && elapsed >= options.during_after_ms) {
            options.during();
            during_done = true;
        }
        if (!killed && elapsed > options.timeout_s * 1000L) {
            kill(pid, SIGKILL);
            killed = true;
        }
        pollfd fds[2] = {{out_open ? out_pipe[0] : -1, POLLIN, 0},
                         {err_open ? err_pipe[0] : -1, POLLIN, 0}};
        poll(fds, 2, 10);
        char buf[65536];
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents == 0) continue;
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? run.out : run.err).append(buf, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                (i == 0 ? out_open : err_open) = false;
            }
        }
    }
    if (!during_done) options.during();
    int status = 0;
    waitpid(pid, &status, 0);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (WIFEXITED(status)) run.exit_code = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
    return run;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) {
            lines.push_back(text.substr(pos));
            break;
        }
        lines.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return lines;
}

Transcript parse_transcript(const std::string& out) {
    static const std::string kFailPrefix = "Condition=[";
    static const std::string kFailMid = "] HAS FAILED at ";
    Transcript t;
    t.well_formed = !out.empty() && out.back() == '\n';
    const std::vector<std::string> lines = lines_of(out);
    CaseResult* open = nullptr;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        if (line == "== PASSED ==" || line == "== FAILED ==") {
            if (!open) t.well_formed = false;
            else open->passed = line == "== PASSED ==";
            open = nullptr;
            if (i + 1 >= lines.size() || !lines[i + 1].empty()) t.well_formed = false;
            ++i;  // the empty line after a verdict
        } else if (line.rfind(kFailPrefix, 0) == 0) {
            size_t mid = line.rfind(kFailMid);
            std::string cond = mid == std::string::npos
                                   ? line
                                   : line.substr(kFailPrefix.size(), mid - kFailPrefix.size());
            (open ? open->failed_conditions : t.preamble_failures).push_back(cond);
        } else if (line.size() > 6 && line.rfind("== ", 0) == 0 &&
                   line.compare(line.size() - 3, 3, " ==") == 0) {
            if (open) t.well_formed = false;
            t.cases.push_back(CaseResult{line.substr(3, line.size() - 6), {}, false});
            open = &t.cases.back();
        } else if (line.rfind("===============================", 0) == 0) {
            t.summary = line;
            if (open) t.well_formed = false;
        } else {
            t.well_formed = false;
        }
    }
    return t;
}

}  // namespace kelvane_test
