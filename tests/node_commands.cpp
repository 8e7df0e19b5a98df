// node_commands.cpp -- talking to the fixtures' servers over hiredis, and starting them.
#include "node_commands.h"

#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "redis_server.h"

namespace kelvane_test {
namespace {

NodeReply own(const redisReply* r) {
    NodeReply out;
    out.failed = r->type == REDIS_REPLY_ERROR;
    out.str = r->type == REDIS_REPLY_INTEGER ? std::to_string(r->integer) : std::string(r->str ? r->str : "", r->len);
    for (size_t i = 0; i < r->elements; ++i) out.elements.push_back(own(r->element[i]));
    return out;
}

}  // namespace

std::vector<NodeReply> node_pipeline(int port, const std::vector<Argv>& commands, const std::string& password) {
    std::unique_ptr<redisContext, void (*)(redisContext*)> c(
        redisConnectWithTimeout("127.0.0.1", port, timeval{1, 0}), redisFree);
    redisSetTimeout(c.get(), timeval{10, 0});
    std::vector<Argv> sent;
    if (!password.empty()) sent.push_back({"AUTH", password});
    sent.insert(sent.end(), commands.begin(), commands.end());
    for (const auto& argv : sent) {
        std::vector<const char*> ptrs;
        std::vector<size_t> lens;
        for (const auto& a : argv) {
            ptrs.push_back(a.data());
            lens.push_back(a.size());
        }
        redisAppendCommandArgv(c.get(), static_cast<int>(ptrs.size()), ptrs.data(), lens.data());
    }
    std::vector<NodeReply> replies;
    for (size_t i = 0; i < sent.size(); ++i) {
        void* raw = nullptr;
        if (redisGetReply(c.get(), &raw) != REDIS_OK || raw == nullptr) {
            replies.resize(sent.size(), NodeReply{true, c->errstr, {}});
            break;
        }
        replies.push_back(own(static_cast<redisReply*>(raw)));
        freeReplyObject(raw);
    }
    if (!password.empty()) replies.erase(replies.begin());
    return replies;
}

NodeReply must_reply(int port, const Argv& argv, const std::string& password) {
    NodeReply r = node_pipeline(port, {argv}, password).front();
    if (r.failed) throw std::runtime_error("node " + std::to_string(port) + ": " + argv[0] + " " + r.str);
    return r;
}

std::string flat(const NodeReply& r) {
    std::string out = r.str;
    for (const auto& e : r.elements) out += "[" + flat(e) + "]";
    return out;
}

std::string field_of(const std::string& text, const std::string& field) {
    const size_t at = text.find("\n" + field + ":");
    if (at == std::string::npos) return "";
    const size_t from = at + field.size() + 2;
    return text.substr(from, text.find('\r', from) - from);
}

std::string field_of(const NodeReply& pairs, const std::string& name) {
    for (size_t i = 0; i + 1 < pairs.elements.size(); i += 2) {
        if (pairs.elements[i].str == name) return pairs.elements[i + 1].str;
    }
    return "";
}

pid_t spawn_server(const Argv& args, int port) {
    Argv copy = args;
    std::vector<char*> argv;
    for (auto& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        // A test process that dies without its destructors (a crash, a ctest timeout) takes its servers along. The
        // signal follows the thread that forked: servers start on the test's own thread.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    const bool up = poll_until(10, [&] {
        if (waitpid(pid, nullptr, WNOHANG) != 0) pid = -1;
        return pid < 0 || RedisServer::listening(port);
    });
    if (!up || pid < 0) {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        throw std::runtime_error(args[0] + " did not start on " + std::to_string(port));
    }
    return pid;
}

}  // namespace kelvane_test
