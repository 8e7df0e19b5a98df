// server_process.cpp -- starting a redis-server on one CPU, and pinning.
//
// The child sets its CPU mask before it executes redis-server, so the server
// and the background threads it starts never run anywhere else, and it asks
// to be killed when its parent dies, so a benchmark that is interrupted
// leaves no server behind.
#include "server_process.h"

#include <arpa/inet.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kelvane_bench {
namespace {

sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

// A port nothing is bound to just now. Another process may take it before
// the server does; try_start() notices and the caller tries another.
int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}

bool answers_ping(int port) {
    timeval brief{0, 200000};
    redisContext* c = redisConnectWithTimeout("127.0.0.1", port, brief);
    bool ok = false;
    if (c != nullptr && c->err == 0) {
        auto* r = static_cast<redisReply*>(redisCommand(c, "PING"));
        ok = r != nullptr && r->type == REDIS_REPLY_STATUS;
        if (r) freeReplyObject(r);
    }
    if (c) redisFree(c);
    return ok;
}

std::string mask_text(const cpu_set_t& set) {
    std::string out;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (!CPU_ISSET(cpu, &set)) continue;
        if (!out.empty()) out += ",";
        out += std::to_string(cpu);
    }
    return out;
}

}  // namespace

bool pin_to_cpu(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof set, &set) == 0;
}

std::string load_average() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

std::string allowed_cpus_text() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) != 0) return "?";
    return mask_text(set);
}

int nth_allowed_cpu(int n) {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) != 0) return -1;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set) && n-- == 0) return cpu;
    }
    return -1;
}

ServerProcess::ServerProcess(int cpu) {
    char tmpl[] = "/tmp/kelvane-compare-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (try_start(cpu)) return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
    throw std::runtime_error("redis-server did not start (see its log in " + dir_ + ")");
}

ServerProcess::~ServerProcess() {
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

bool ServerProcess::try_start(int cpu) {
    port_ = free_port();
    if (port_ == 0) return false;
    const std::string port = std::to_string(port_);
    std::vector<std::string> args = {"redis-server", "--port", port, "--bind", "127.0.0.1",
                                     "--save", "", "--appendonly", "no", "--dir", dir_,
                                     "--logfile", dir_ + "/redis.log", "--daemonize", "no"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("cannot fork for redis-server");
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec. The server
        // goes when this process goes, however it ends.
        if (cpu >= 0) {
            cpu_set_t set;
            CPU_ZERO(&set);
            CPU_SET(cpu, &set);
            if (sched_setaffinity(0, sizeof set, &set) != 0) _exit(126);
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(126);
        execvp("redis-server", argv.data());
        _exit(127);
    }
    pid_ = pid;

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!answers_ping(port_)) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
                throw std::runtime_error("cannot run redis-server (is it installed?)");
            }
            if (WIFEXITED(status) && WEXITSTATUS(status) == 126) {
                throw std::runtime_error("cannot run redis-server on CPU " + std::to_string(cpu));
            }
            return false;  // most likely the port was taken in the meantime
        }
        if (std::chrono::steady_clock::now() > deadline) {
            stop();
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

void ServerProcess::stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string ServerProcess::cpus() const {
    cpu_set_t set;
    if (pid_ <= 0 || sched_getaffinity(pid_, sizeof set, &set) != 0) return "?";
    return mask_text(set);
}

}  // namespace kelvane_bench
