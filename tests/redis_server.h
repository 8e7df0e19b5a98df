// redis_server.h -- a private redis-server process for one test: its own temporary directory, no persistence,
// loopback only, plaintext or TLS, and a Unix socket when asked. Tests start it, stop it, kill it or freeze it to
// see what the client does.
#ifndef KELVANE_TESTS_REDIS_SERVER_H
#define KELVANE_TESTS_REDIS_SERVER_H

#include <netinet/in.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace kelvane_test {

// 127.0.0.1:port, for tests that open sockets of their own.
sockaddr_in loopback(int port);

// What a server listens on besides plaintext TCP.
struct ServerOptions {
    // With a certificate, port() speaks TLS only (certificate and key; clients' certificates are checked against
    // tls_ca, and required with tls_auth_clients), and plaintext moves to admin_port(), for command().
    std::string tls_cert, tls_key, tls_ca;
    bool tls_auth_clients = false;
    std::string unix_socket;  // a path to listen on as well
};

class RedisServer {
public:
    explicit RedisServer(int port = 0, ServerOptions options = {});  // port 0 picks a free one
    ~RedisServer();
    RedisServer(const RedisServer&) = delete;
    RedisServer& operator=(const RedisServer&) = delete;

    void start();   // starts it (again, on the same port) and waits until it answers
    void stop();    // SIGTERM, and waits for it to go
    void kill();    // SIGKILL: no goodbye to its clients
    void freeze();  // SIGSTOP: a server that accepts but does not answer
    void thaw();    // SIGCONT

    int port() const { return port_; }
    int admin_port() const { return admin_port_; }  // plaintext: port(), unless port() speaks TLS

    // Runs one command over a fresh connection and gives the reply as text (integers in decimal, nil as "(nil)",
    // arrays joined by ","), for tests that look at the server's own view of the data.
    std::string command(const std::vector<std::string>& argv) const;

    static int free_port();           // a port on 127.0.0.1 that nothing listens on just now
    static bool listening(int port);  // whether something accepts connections on 127.0.0.1:port

private:
    void end(int signal);

    int port_;
    ServerOptions options_;
    int admin_port_;
    std::string dir_;
    pid_t pid_ = -1;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_REDIS_SERVER_H
