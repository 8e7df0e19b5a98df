// durable_server.cpp -- starting and stopping a redis-server with an
// append-only file.
#include "durable_server.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

#include "raw_redis.h"
#include "redis_server.h"

extern char** environ;

namespace kelvane_model {
namespace {

// True once the server answers PING with PONG (not -LOADING).
bool answers(int port) {
    try {
        RawRedis redis(port);
        return RawRedis::text(redis.run({"PING"}).get()) == "PONG";
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

DurableServer::DurableServer() : port_(kelvane_test::RedisServer::free_port()) {
    char tmpl[] = "/tmp/kelvane-durable-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    start();
}

DurableServer::~DurableServer() {
    thaw();
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

void DurableServer::start() {
    if (pid_ > 0) return;
    const std::string port = std::to_string(port_);
    std::vector<std::string> args = {"redis-server", "--port", port, "--bind", "127.0.0.1", "--save", "",
                                     "--appendonly", "yes", "--appendfsync", "always", "--dir", dir_,
                                     "--logfile", dir_ + "/redis.log", "--daemonize", "no"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawnp(&pid_, "redis-server", nullptr, nullptr, argv.data(), environ) != 0) {
        pid_ = -1;
        throw std::runtime_error("cannot start redis-server");
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!answers(port_)) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("redis-server exited on start; see " + dir_ + "/redis.log");
        }
        if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("redis-server did not answer");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void DurableServer::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void DurableServer::freeze() {
    if (pid_ <= 0 || frozen_) return;
    ::kill(pid_, SIGSTOP);
    frozen_ = true;
}

void DurableServer::thaw() {
    if (pid_ <= 0 || !frozen_) return;
    ::kill(pid_, SIGCONT);
    frozen_ = false;
}

}  // namespace kelvane_model
