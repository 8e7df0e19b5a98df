// node_commands.h -- what the fixtures of several servers (a cluster, a master watched by Sentinels) share: server
// processes that die with the test, commands over a fresh connection with their replies as trees, the fields of INFO
// text, and bounded polling.
#ifndef KELVANE_TESTS_NODE_COMMANDS_H
#define KELVANE_TESTS_NODE_COMMANDS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace kelvane_test {

using Argv = std::vector<std::string>;

// A reply taken out of hiredis: an integer also as decimal text, failed for an error reply or none at all.
struct NodeReply {
    bool failed = true;
    std::string str;  // the text, the error, or why there was no reply
    std::vector<NodeReply> elements;
};

// Sends every command on one fresh connection (after AUTH with password, when one is given) before reading any
// reply. A connection that failed fails every reply with its error.
std::vector<NodeReply> node_pipeline(int port, const std::vector<Argv>& commands, const std::string& password = "");

// The one reply; an error reply or none at all throws.
NodeReply must_reply(int port, const Argv& argv, const std::string& password = "");

// A reply as one line of text, to compare what nodes answer.
std::string flat(const NodeReply& r);

// The value of "field:value" in INFO text, "" when it is not there.
std::string field_of(const std::string& text, const std::string& field);

// The element after the element named name in a flat list of names and values (SENTINEL MASTER), "" without one.
std::string field_of(const NodeReply& pairs, const std::string& name);

// Starts a server program (argv[0] on PATH) that is killed when the test process dies, and waits until it accepts
// connections on 127.0.0.1:port. Throws when it does not within 10 s.
pid_t spawn_server(const Argv& argv, int port);

template <class Done>
bool poll_until(double timeout_s, Done done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_NODE_COMMANDS_H
