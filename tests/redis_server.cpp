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

sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

namespace {

std::string reply_text(const redisReply* r) {
    switch (r->type) {
        case REDIS_REPLY_INTEGER: return std::to_string(r->integer);
        case REDIS_REPLY_NIL: return "(nil)";
        case REDIS_REPLY_ARRAY: {
            std::string out;
            for (size_t i = 0; i < r->elements; ++i) out += (i ? "," : "") + reply_text(r->element[i]);
            return out;
        }
        default: return std::string(r->str, r->len);
    }
}

}  // namespace

RedisServer::RedisServer(int port, ServerOptions options)
    : port_(port != 0 ? port : free_port()),
      options_(std::move(options)),
      admin_port_(options_.tls_cert.empty() ? port_ : free_port()) {
    char tmpl[] = "/tmp/kelvane-redis-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    start();
}

RedisServer::~RedisServer() {
    thaw();
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

void RedisServer::start() {
    if (pid_ > 0) return;
    const std::string port = std::to_string(port_);
    std::vector<std::string> args = {"redis-server", "--port", std::to_string(admin_port_), "--bind", "127.0.0.1",
                                     "--save", "", "--appendonly", "no", "--dir", dir_, "--logfile",
                                     dir_ + "/redis.log", "--daemonize", "no"};
    if (!options_.tls_cert.empty()) {
        args.insert(args.end(), {"--tls-port", port, "--tls-cert-file", options_.tls_cert, "--tls-key-file",
                                 options_.tls_key, "--tls-ca-cert-file", options_.tls_ca, "--tls-auth-clients",
                                 options_.tls_auth_clients ? "yes" : "no"});
    }
    if (!options_.unix_socket.empty()) {
        args.insert(args.end(), {"--unixsocket", options_.unix_socket, "--unixsocketperm", "700"});
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawnp(&pid_, "redis-server", nullptr, nullptr, argv.data(), environ) != 0) {
        pid_ = -1;
        throw std::runtime_error("cannot start redis-server");
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!listening(port_)) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("redis-server exited on start; port " + port + " taken?");
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("redis-server did not start listening on " + port);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void RedisServer::end(int signal) {
    if (pid_ <= 0) return;
    ::kill(pid_, signal);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void RedisServer::stop() { end(SIGTERM); }
void RedisServer::kill() { end(SIGKILL); }
void RedisServer::freeze() { if (pid_ > 0) ::kill(pid_, SIGSTOP); }
void RedisServer::thaw() { if (pid_ > 0) ::kill(pid_, SIGCONT); }

std::string RedisServer::command(const std::vector<std::string>& argv) const {
    redisContext* c = redisConnect("127.0.0.1", admin_port_);
    if (c == nullptr || c->err) {
        if (c) redisFree(c);
        throw std::runtime_error("cannot connect to the test server");
    }
    std::vector<const char*> ptrs;
    std::vector<size_t> lens;
    for (const auto& a : argv) ptrs.push_back(a.data()), lens.push_back(a.size());
    auto* r = static_cast<redisReply*>(redisCommandArgv(c, static_cast<int>(ptrs.size()), ptrs.data(), lens.data()));
    const std::string out = r ? reply_text(r) : "(transport error)";
    if (r) freeReplyObject(r);
    redisFree(c);
    return out;
}

int RedisServer::free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

bool RedisServer::listening(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr = loopback(port);
    const bool ok = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

}  // namespace kelvane_test
