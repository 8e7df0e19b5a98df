// redis_sentinel.h -- what the Sentinel tests stand on: a private master with two replicas, watched by three Redis
// Sentinels (redis-server --sentinel), for one test: their own temporary directories, no persistence, loopback
// only, failing over in seconds (down-after-milliseconds 1000, failover-timeout 3000). Tests fail the master over,
// kill, freeze and thaw any of them, and start lone Sentinels beside them that watch the same name somewhere else,
// as a misconfigured or stale Sentinel would.
#ifndef KELVANE_TESTS_REDIS_SENTINEL_H
#define KELVANE_TESTS_REDIS_SENTINEL_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "kelvane.h"
#include "node_commands.h"
#include "redis_server.h"

namespace kelvane_test {

struct SentinelSetup {
    std::vector<int> data_ports;      // the first master, then its replicas; empty: three free ports
    std::vector<int> sentinel_ports;  // empty: three free ports
    std::string data_password;        // requirepass of the master and replicas (masterauth, the Sentinels' auth-pass)
    std::string sentinel_password;    // requirepass of the Sentinels
    // With a certificate, the master and replicas speak TLS only on their ports (to clients, to each other and to
    // the Sentinels, which present the same certificate), and plaintext for the fixture on an admin port of their
    // own; the Sentinels stay plaintext.
    ServerOptions tls;
};

class RedisSentinels {
public:
    static constexpr const char* kName = "kvmaster";  // the name the Sentinels watch the master under

    explicit RedisSentinels(SentinelSetup setup = {});
    ~RedisSentinels();
    RedisSentinels(const RedisSentinels&) = delete;
    RedisSentinels& operator=(const RedisSentinels&) = delete;

    const std::vector<int>& data_ports() const { return setup_.data_ports; }
    const std::vector<int>& sentinel_ports() const { return setup_.sentinel_ports; }

    // The reply of a data node or a Sentinel (any of the fixture's ports) as text; an error reply or none throws.
    std::string must(int port, const Argv& argv) const;
    NodeReply must_reply(int port, const Argv& argv) const;
    std::string role(int port) const;  // "master" or "slave"
    // The port of the master the first running Sentinel names.
    int master() const;

    // Until every replica is in sync with the master and every running Sentinel names it and knows its two
    // replicas and the other running Sentinels, as a failover needs. Throws after timeout_s.
    void wait_ready(double timeout_s = 30) const;
    // SENTINEL FAILOVER on the first running Sentinel; waits until every running Sentinel names another master and
    // it answers ROLE as master. Gives its port.
    int failover();
    // Waits until every running Sentinel names a master other than old that answers ROLE as master; gives it.
    int wait_for_new_master(int old, double timeout_s = 60) const;

    void kill(int port);    // SIGKILL, without waiting for the Sentinels to react
    void freeze(int port);  // SIGSTOP: it accepts connections and answers nothing
    void thaw(int port);    // SIGCONT

    // A Sentinel of its own on a free port, watching name at 127.0.0.1:port with a quorum of one: a Sentinel
    // that names whatever is there (a replica, a node of another store, nothing at all). Gives its port. The node
    // it watches must not be one of the fixture's, whose Sentinels would meet it there and count it as one of
    // theirs.
    int start_lone_sentinel(int port, const std::string& name = kName);

private:
    struct Process {
        std::string dir;
        pid_t pid = -1;
        bool sentinel = false;
        bool frozen = false;
        int admin = 0;  // the plaintext port the fixture talks to
    };
    void start_data_node(int port, bool replica);
    void start_sentinel(int port, const std::string& name, int master, int quorum);
    int admin(int port) const { return processes_.at(port).admin; }
    const std::string& password_of(int port) const;
    void stop_all();
    bool ready(std::string& why) const;

    SentinelSetup setup_;
    std::map<int, Process> processes_;  // by port
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_REDIS_SENTINEL_H
