// redis_server.cpp -- starting and stopping private redis-server processes.
#include "redis_server.h"

#include <arpa/inet.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kelvane_test {
namespace {

sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

std::string reply_text(const redisReply* r) {
    switch (r->type) {
        case REDIS_REPLY_INTEGER: return std::to_string(r->integer);
        case REDIS_REPLY_NIL: return "(nil)";
        case REDIS_REPLY_ARRAY: {
            std::string out;
            for (size_t i = 0; i < r->elements; ++i) {
                if (i) out += ",";
                out += reply_text(r->element[i]);
            }
            return out;
        }
        default: return std::string(r->str, r->len);
    }
}

}  // namespace

RedisServer::RedisServer(int port) : port_(port != 0 ? port : free_port()) {
    char tmpl[] = "/tmp/kelvane-redis-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    start();
}

RedisServer::~RedisServer() {
    if (pid_ > 0) {
        thaw();
        stop();
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

void RedisServer::start() {
    if (pid_ > 0) return;
    const std::string port = std::to_string(port_);
    const std::string log = dir_ + "/redis.log";
    std::vector<std::string> args = {"redis-server", "--port", port, "--bind", "127.0.0.1",
                                     "--save", "", "--appendonly", "no", "--dir", dir_,
                                     "--logfile", log, "--daemonize", "no"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, "redis-server", nullptr, nullptr, argv.data(), environ) != 0) {
        throw std::runtime_error("cannot start redis-server");
    }
    pid_ = pid;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!listening(port_)) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("redis-server exited on start; port " + port + " taken?");
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("redis-server did not start listening on " + port);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void RedisServer::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void RedisServer::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void RedisServer::freeze() {
    if (pid_ > 0) ::kill(pid_, SIGSTOP);
}

void RedisServer::thaw() {
    if (pid_ > 0) ::kill(pid_, SIGCONT);
}

std::string RedisServer::command(const std::vector<std::string>& argv) const {
    redisContext* c = redisConnect("127.0.0.1", port_);
    if (c == nullptr || c->err) {
        if (c) redisFree(c);
        throw std::runtime_error("cannot connect to the test server");
    }
    std::vector<const char*> ptrs;
    std::vector<size_t> lens;
    for (const auto& a : argv) {
        ptrs.push_back(a.data());
        lens.push_back(a.size());
    }
    auto* r = static_cast<redisReply*>(
        redisCommandArgv(c, static_cast<int>(ptrs.size()), ptrs.data(), lens.data()));
    std::string out = r ? reply_text(r) : "(transport error)";
    if (r) freeReplyObject(r);
    redisFree(c);
    return out;
}

int RedisServer::free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

bool RedisServer::listening(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(port);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

}  // namespace kelvane_test
