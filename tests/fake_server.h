// fake_server.h -- a scripted store server on loopback, to play a server that misbehaves: a listener in a thread of
// its own reads the client's commands and answers each with whatever bytes the test's script gives (any number of
// replies, a reply of the wrong shape, junk, or nothing), and can write bytes nobody asked for at any moment.
//
// It speaks just enough of the protocol for a client to get going (routine_answer): a standalone greeting, no
// function library, then loading one. The tests of a well-behaved server use a real redis-server instead.
#ifndef KELVANE_TESTS_FAKE_SERVER_H
#define KELVANE_TESTS_FAKE_SERVER_H

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kelvane_test {

using Command = std::vector<std::string>;

// Replies in the wire format, to put scripts together.
std::string bulk(std::string_view text);
std::string integer(long long value);
std::string nil();
std::string array(const std::vector<std::string>& elements);

// What a sound server answers to the commands a client sends on its own account: HELLO (a standalone server),
// FUNCTION LIST (no library yet), FUNCTION LOAD (the name of the library it was given) and PING (its echo); "" for
// any other command.
std::string routine_answer(const Command& c);

// The operation of an FCALL (the function name after its last '_': "zscore"), or "" for another command.
std::string operation(const Command& c);

// A server function's reply: its fields (in wire form), then the call's tag, which the client sends as the last
// argument of the FCALL.
std::string function_reply(const Command& fcall, const std::vector<std::string>& fields);

class FakeServer {
public:
    // The bytes that answer one command.
    using Script = std::function<std::string(const Command&)>;

    explicit FakeServer(Script script);
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    int port() const { return port_; }
    // Connections accepted so far: a client that dropped one has opened another.
    int connections() const { return accepted_; }
    // The bytes that answered the last command.
    std::string last_answer() const;
    // Writes bytes to the newest connection now, whatever the client is doing.
    void push(const std::string& bytes);

private:
    struct Connection {
        int fd;
        std::string pending;  // received bytes that do not make a whole command yet
    };
    void serve();
    // Answers every whole command in c's pending bytes; false once c is gone.
    bool answer(Connection& c);

    Script script_;
    const int listener_;
    int port_ = 0;
    std::atomic<int> accepted_{0};
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;  // connections_' fds and last_answer_, against push() and last_answer()
    std::vector<Connection> connections_;
    std::string last_answer_;
    std::thread thread_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_FAKE_SERVER_H
