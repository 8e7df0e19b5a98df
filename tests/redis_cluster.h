// redis_cluster.h -- a private Redis Cluster for one test: six cluster-enabled redis-server processes (three
// masters, each with one replica) on loopback, made into a cluster and waited for until every node says the
// cluster is ok and all of them agree on who serves which slots. Tests look the topology up, fail masters over,
// kill and restart nodes and move slots step by step while the library under test works against it. Everything
// stops when the object goes, also when a test fails half way.
#ifndef KELVANE_TESTS_REDIS_CLUSTER_H
#define KELVANE_TESTS_REDIS_CLUSTER_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cluster_node.h"

namespace kelvane_test {

// One slot on its way from one master to another; made by RedisCluster::open_migration.
struct Migration {
    int slot = -1;
    int source = 0;  // ports
    int target = 0;
    size_t moved = 0;  // server keys moved so far
};

// Where RedisCluster::migrate_slot lets a test act; each may be empty.
struct MigrationSteps {
    size_t batch = 4;                              // server keys per MIGRATE
    std::function<void()> opened;                  // both sides marked, nothing moved yet
    std::function<void(const Migration&)> batch_moved;  // after every MIGRATE
    std::function<void()> emptied;                 // every key on the target, the slot still open
};

class RedisCluster {
public:
    static constexpr int kNodes = 6;
    static constexpr int kSlots = 16384;

    // Nodes on first_port .. first_port + 5 (cluster bus on each port + 10000); 0 picks a free block. The first
    // three start as masters of slots 0-5460, 5461-10922 and 10923-16383, node 3 + i as the replica of node i.
    explicit RedisCluster(int first_port = 0, int node_timeout_ms = kDefaultNodeTimeoutMs);
    ~RedisCluster();
    RedisCluster(const RedisCluster&) = delete;
    RedisCluster& operator=(const RedisCluster&) = delete;

    // ---- Looking ----------------------------------------------------------
    const std::vector<int>& ports() const { return ports_; }
    bool running(int port) const;
    // Masters and replicas among the running nodes, as the cluster sees them now.
    std::vector<int> masters() const;
    std::vector<int> replicas() const;
    int replica_of(int master) const;
    int master_of(int replica) const;
    std::string node_id(int port) const { return ids_.at(port); }
    // The master serving the slot, from CLUSTER SLOTS of a running node.
    int owner_of_slot(int slot) const;
    // The slot the cluster computes for a server key (CLUSTER KEYSLOT), one or many at once.
    int key_slot(const std::string& server_key) const;
    std::vector<int> key_slots(const std::vector<std::string>& server_keys) const;
    // Every key stored on a node (SCAN), with no regard to slots.
    std::vector<std::string> keys_on(int port) const;
    // How often a node has answered an error reply of this kind (MOVED, ASK, TRYAGAIN, CLUSTERDOWN) since the
    // last reset_error_stats(): whether a client was redirected, or met a slot in the middle of a move.
    long long error_count(int port, const std::string& prefix) const;
    // The same, summed over every running node.
    long long error_count(const std::string& prefix) const;
    void reset_error_stats() const;

    NodeReply command(int port, const Argv& argv) const { return node_command(port, argv); }
    // The reply as text; a transport failure or an error reply throws.
    std::string must(int port, const Argv& argv) const;
    // A field of CLUSTER INFO or INFO replication ("cluster_state", "role", "master_link_status").
    std::string info_field(int port, const std::string& section, const std::string& field) const;

    // ---- Changing ---------------------------------------------------------
    // CLUSTER FAILOVER on the replica; returns once it serves its master's slots, the old master replicates
    // from it and every node agrees.
    void manual_failover(int replica);
    // SIGKILL to a master; returns its replica's port once that replica serves the slots and every running
    // node agrees. killed runs as soon as the process is gone, before any waiting.
    int kill_master(int master, const std::function<void()>& killed = {});
    // SIGKILL to any node, without waiting for the cluster to react.
    void kill(int port);
    // Starts a killed node again (empty, same identity) without waiting: wait_healthy() when the cluster can be
    // whole again (a restarted master and its replica may have to come back both).
    void restart(int port);
    // Until every running node reports cluster_state:ok, agrees on the slot map and on which nodes have failed,
    // and every running replica is in sync with its master. Throws with every node's view after timeout_s.
    void wait_healthy(double timeout_s = 30) const;
    // Until every running node reports cluster_state:<state> (ok or fail).
    void wait_state(const std::string& state, double timeout_s = 30) const;

    // A slot's move, step by step: SETSLOT IMPORTING on the target and MIGRATING on the source; MIGRATE of named
    // server keys or of the next batch the source holds (GETKEYSINSLOT); SETSLOT NODE on the target, the
    // source and the other masters, then waiting until every node agrees.
    Migration open_migration(int slot, int target) const;
    void move_keys(Migration& m, const std::vector<std::string>& server_keys) const;
    size_t move_batch(Migration& m, size_t batch) const;  // keys moved; 0 when the source holds none
    void close_migration(const Migration& m) const;
    // All of it, with the steps' hooks in between.
    Migration migrate_slot(int slot, int target, const MigrationSteps& steps = {}) const;

    // A node silent for this long is taken for failing, and a failover follows within a few seconds more; shorter
    // would be quicker, but a loaded two-core machine can delay a node's pings by a good part of a second.
    static constexpr int kDefaultNodeTimeoutMs = 2000;

private:
    void create();
    // The whole cluster as seen by every running node, for failure messages.
    std::string describe() const;
    bool healthy(std::string& why) const;
    int any_running() const;

    std::vector<int> ports_;
    std::map<int, std::unique_ptr<ClusterNode>> nodes_;
    std::map<int, std::string> ids_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_REDIS_CLUSTER_H
