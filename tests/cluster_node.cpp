// cluster_node.cpp -- starting and killing cluster-enabled redis-server processes, and talking to them.
#include "cluster_node.h"

#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>

#include "redis_server.h"

namespace kelvane_test {
namespace {

// A node that does not answer a helper within these is as good as down; they bound every wait in the fixture.
constexpr timeval kConnectTimeout{1, 0};
constexpr timeval kCommandTimeout{10, 0};

struct ContextFree {
    void operator()(redisContext* c) const noexcept { redisFree(c); }
};
using Context = std::unique_ptr<redisContext, ContextFree>;

NodeReply transport_failure(const std::string& why) {
    NodeReply r;
    r.kind = NodeReply::kTransport;
    r.str = why;
    return r;
}

NodeReply own(const redisReply* r) {
    NodeReply out;
    switch (r->type) {
        case REDIS_REPLY_STRING: out.kind = NodeReply::kString; break;
        case REDIS_REPLY_STATUS: out.kind = NodeReply::kStatus; break;
        case REDIS_REPLY_ERROR: out.kind = NodeReply::kError; break;
        case REDIS_REPLY_INTEGER: out.kind = NodeReply::kInteger; break;
        case REDIS_REPLY_NIL: out.kind = NodeReply::kNil; break;
        default: out.kind = NodeReply::kArray; break;
    }
    if (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS || r->type == REDIS_REPLY_ERROR) {
        out.str.assign(r->str, r->len);
    }
    out.integer = r->integer;
    for (size_t i = 0; i < r->elements; ++i) out.elements.push_back(own(r->element[i]));
    return out;
}

Context connect_to(int port, std::string& why) {
    Context c(redisConnectWithTimeout("127.0.0.1", port, kConnectTimeout));
    if (!c || c->err) {
        why = "cannot connect to " + std::to_string(port) + (c ? std::string(": ") + c->errstr : "");
        return nullptr;
    }
    redisSetTimeout(c.get(), kCommandTimeout);
    return c;
}

void append(redisContext* c, const Argv& argv) {
    std::vector<const char*> ptrs;
    std::vector<size_t> lens;
    for (const auto& a : argv) {
        ptrs.push_back(a.data());
        lens.push_back(a.size());
    }
    redisAppendCommandArgv(c, static_cast<int>(ptrs.size()), ptrs.data(), lens.data());
}

}  // namespace

std::string NodeReply::text() const {
    switch (kind) {
        case kInteger: return std::to_string(integer);
        case kNil: return "(nil)";
        case kArray: {
            std::string out;
            for (size_t i = 0; i < elements.size(); ++i) out += (i ? "," : "") + elements[i].text();
            return out;
        }
        case kTransport: return "(transport) " + str;
        default: return str;
    }
}

NodeReply node_command(int port, const Argv& argv) {
    std::vector<NodeReply> replies = node_pipeline(port, {argv});
    return replies.front();
}

std::vector<NodeReply> node_pipeline(int port, const std::vector<Argv>& commands) {
    std::string why;
    Context c = connect_to(port, why);
    std::vector<NodeReply> replies;
    if (!c) return std::vector<NodeReply>(commands.size(), transport_failure(why));
    for (const auto& argv : commands) append(c.get(), argv);
    for (size_t i = 0; i < commands.size(); ++i) {
        void* raw = nullptr;
        if (redisGetReply(c.get(), &raw) != REDIS_OK || raw == nullptr) {
            replies.resize(commands.size(), transport_failure(c->errstr));
            break;
        }
        replies.push_back(own(static_cast<redisReply*>(raw)));
        freeReplyObject(raw);
    }
    return replies;
}

ClusterNode::ClusterNode(int port, int node_timeout_ms) : port_(port), node_timeout_ms_(node_timeout_ms) {
    char tmpl[] = "/tmp/kelvane-cluster-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    try {
        start();
    } catch (...) {
        // No destructor runs for a half-made object: the directory goes here.
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
        throw;
    }
}

ClusterNode::~ClusterNode() {
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

void ClusterNode::start() {
    if (pid_ > 0) return;
    // Data lives in memory only: a restarted node comes back empty but keeps its identity (nodes.conf). Diskless
    // replication without delay lets a replica sync at once; replica migration off and validity factor 0 keep
    // the topology where the tests put it and let any replica take over its master.
    std::vector<std::string> args = {
        "redis-server", "--port", std::to_string(port_), "--bind", "127.0.0.1", "--save", "", "--appendonly", "no",
        "--dir", dir_, "--logfile", "redis.log", "--daemonize", "no", "--cluster-enabled", "yes",
        "--cluster-config-file", "nodes.conf", "--cluster-node-timeout", std::to_string(node_timeout_ms_),
        "--cluster-replica-validity-factor", "0", "--cluster-allow-replica-migration", "no",
        "--repl-diskless-sync", "yes", "--repl-diskless-sync-delay", "0"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        // A test process that dies without running its destructors (a crash, a ctest timeout) takes its nodes
        // with it. The signal follows the thread that forked, so nodes are only ever started from the test's
        // main thread.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    pid_ = pid;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!RedisServer::listening(port_)) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("redis-server exited on start; port " + std::to_string(port_) + " taken?\n" +
                                     log_tail());
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("redis-server did not start listening on " + std::to_string(port_));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void ClusterNode::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string ClusterNode::log_tail(size_t lines) const {
    std::ifstream in(dir_ + "/redis.log");
    std::vector<std::string> all;
    for (std::string line; std::getline(in, line);) all.push_back(line);
    std::string out;
    for (size_t i = all.size() > lines ? all.size() - lines : 0; i < all.size(); ++i) out += all[i] + "\n";
    return out;
}

}  // namespace kelvane_test
