// redis_server.h -- a private redis-server process for one test: its own
// temporary directory, no persistence, loopback only. Tests start it, stop
// it, kill it or freeze it to see what the client does.
#ifndef KELVANE_TESTS_REDIS_SERVER_H
#define KELVANE_TESTS_REDIS_SERVER_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelvane_test {

class RedisServer {
public:
    // port 0 picks a free one.
    explicit RedisServer(int port = 0);
    ~RedisServer();
    RedisServer(const RedisServer&) = delete;
    RedisServer& operator=(const RedisServer&) = delete;

    // Starts the server (again, on the same port) and waits until it answers.
    void start();
    // Stops it with SIGTERM and waits for it to go.
    void stop();
    // Kills it with SIGKILL: no goodbye to its clients.
    void kill();
    // SIGSTOP and SIGCONT: a server that accepts but does not answer.
    void freeze();
    void thaw();

    bool running() const { return pid_ > 0; }
    int port() const { return port_; }
    const std::string& dir() const { return dir_; }

    // Runs one command over a fresh connection and returns the reply as
    // text (integers in decimal, nil as "(nil)", arrays joined by ","), for
    // tests that look at the server's own view of the data.
    std::string command(const std::vector<std::string>& argv) const;

    // A port on 127.0.0.1 that nothing listens on just now.
    static int free_port();
    // True when something accepts connections on 127.0.0.1:port.
    static bool listening(int port);

private:
    int port_;
    std::string dir_;
    pid_t pid_ = -1;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_REDIS_SERVER_H
