// cluster_node.h -- one cluster-enabled redis-server process for the cluster tests (its own temporary directory,
// no data persistence, loopback only), and commands sent to any node over a short-lived connection with bounded
// waits, so that a test helper never hangs on a dead or busy node.
#ifndef KELVANE_TESTS_CLUSTER_NODE_H
#define KELVANE_TESTS_CLUSTER_NODE_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelvane_test {

using Argv = std::vector<std::string>;

// A reply taken out of hiredis into owned data. kTransport: no reply at all (refused, timed out, broken).
struct NodeReply {
    enum Kind { kTransport, kString, kStatus, kError, kInteger, kNil, kArray };
    Kind kind = kTransport;
    std::string str;  // string, status and error text; the reason for kTransport
    long long integer = 0;
    std::vector<NodeReply> elements;

    bool failed() const { return kind == kTransport || kind == kError; }
    // Integers in decimal, nil as "(nil)", arrays joined by ",", errors and transport failures as their text.
    std::string text() const;
};

// Sends one command to 127.0.0.1:port on a fresh connection.
NodeReply node_command(int port, const Argv& argv);
// Sends all commands on one connection before reading any reply (for thousands of small queries).
std::vector<NodeReply> node_pipeline(int port, const std::vector<Argv>& commands);

class ClusterNode {
public:
    // Makes the node's directory and starts it. node_timeout_ms is the cluster-node-timeout: how long a silent
    // node has before the others count it as failed.
    ClusterNode(int port, int node_timeout_ms);
    // Kills the process if it still runs and removes the directory.
    ~ClusterNode();
    ClusterNode(const ClusterNode&) = delete;
    ClusterNode& operator=(const ClusterNode&) = delete;

    // Starts the process again (same port, same directory, so the same node id from its nodes.conf; no data) and
    // waits until it answers.
    void start();
    // SIGKILL: no goodbye to clients or to the other nodes.
    void kill();

    bool running() const { return pid_ > 0; }
    int port() const { return port_; }
    const std::string& dir() const { return dir_; }
    // The last lines of its log, for failure messages.
    std::string log_tail(size_t lines = 20) const;

private:
    int port_;
    int node_timeout_ms_;
    std::string dir_;
    pid_t pid_ = -1;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_CLUSTER_NODE_H
