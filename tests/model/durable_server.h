// durable_server.h -- a private redis-server that keeps what it acknowledged
// across restarts: append-only file with an fsync before every reply
// (appendfsync always), its own temporary directory, loopback only, a fixed
// port kept across restarts. The chaos test stops, starts, freezes and thaws
// it while clients work.
#ifndef KELVANE_TESTS_MODEL_DURABLE_SERVER_H
#define KELVANE_TESTS_MODEL_DURABLE_SERVER_H

#include <sys/types.h>

#include <string>

namespace kelvane_model {

class DurableServer {
public:
    DurableServer();  // on a free port, started
    ~DurableServer();
    DurableServer(const DurableServer&) = delete;
    DurableServer& operator=(const DurableServer&) = delete;

    // Starts it (again, same port and data) and waits until it answers PING,
    // its data loaded.
    void start();
    // SIGTERM, and waits for it to go: acknowledged writes are on disk.
    void stop();
    void freeze();  // SIGSTOP: connections are accepted, nothing is answered
    void thaw();    // SIGCONT

    int port() const { return port_; }
    const std::string& dir() const { return dir_; }

private:
    int port_;
    std::string dir_;
    pid_t pid_ = -1;
    bool frozen_ = false;
};

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_DURABLE_SERVER_H
