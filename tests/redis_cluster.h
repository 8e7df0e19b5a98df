// redis_cluster.h -- a private Redis Cluster for one test: six cluster-enabled redis-server processes on loopback
// (own temporary directories, no persistence), three masters with one replica each, waited for until every node
// is ok and all agree on the slots. Tests fail masters over, kill nodes and move slots under the library; the
// fixture's own commands have bounded waits. Also where kelvane keys live: server key names and slots.
#ifndef KELVANE_TESTS_REDIS_CLUSTER_H
#define KELVANE_TESTS_REDIS_CLUSTER_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace kelvane_test {

using Argv = std::vector<std::string>;

// One slot on its way from one master to another (ports).
struct Migration { int slot, source, target; };

class RedisCluster {
public:
    static constexpr int kNodes = 6;

    // Nodes on first_port .. first_port + 5, cluster bus on each port + 10000; 0 picks a free block. The first
    // three start as masters of slots 0-5460, 5461-10922 and 10923-16383, node 3 + i as the replica of node i.
    explicit RedisCluster(int first_port = 0);
    ~RedisCluster();
    RedisCluster(const RedisCluster&) = delete;
    RedisCluster& operator=(const RedisCluster&) = delete;

    std::vector<int> ports() const;    // the running nodes
    std::vector<int> masters() const;  // running masters that serve slots, in port order
    int replica_of(int master) const;
    int owner_of_slot(int slot) const;
    std::vector<int> key_slots(const std::vector<std::string>& server_keys) const;  // CLUSTER KEYSLOT of each
    // The reply as text (an integer in decimal); an error reply or none at all throws.
    std::string must(int port, const Argv& argv) const;
    std::string role(int port) const;  // "master" or "slave"
    // How often the running nodes answered an error reply of this kind (MOVED, ASK) since the last
    // reset_error_stats(): whether a client was redirected.
    long long error_count(const std::string& prefix) const;
    void reset_error_stats() const;

    // CLUSTER FAILOVER on the replica, then waits until it is master and the cluster healthy.
    void manual_failover(int replica);
    void kill(int port);  // SIGKILL, without waiting for the cluster to react
    // Until every running node reports cluster_state:ok and the same masters, replicas and slots, and every
    // running replica is in sync. Throws after timeout_s.
    void wait_healthy(double timeout_s = 30) const;

    // A slot's move as an operator makes it: SETSLOT IMPORTING on the target and MIGRATING on the source; MIGRATE
    // of named server keys or of the next batch the source holds; SETSLOT NODE everywhere, then waiting until
    // every node agrees.
    Migration open_migration(int slot, int target) const;
    void move_keys(const Migration& m, const std::vector<std::string>& server_keys) const;
    size_t move_batch(const Migration& m, size_t batch) const;  // keys moved; 0 when the source holds none
    void close_migration(const Migration& m) const;

private:
    struct Node {
        std::string dir, id;
        pid_t pid = -1;
    };
    void start(int port);
    void stop_all();
    int any_running() const { return ports().at(0); }
    bool healthy(std::string& why) const;

    std::map<int, Node> nodes_;  // by port
};

// kv{E}: E is the key with '%', '{' and '}' percent-encoded, the empty key a lone '%'. The values hash is the
// same name with ":v" appended.
inline std::string main_server_key(const std::string& key) {
    std::string tag = key.empty() ? "%" : "";
    for (char c : key) tag += c == '%' ? "%25" : c == '{' ? "%7B" : c == '}' ? "%7D" : std::string(1, c);
    return "kv{" + tag + "}";
}

// Kelvane keys by the slot of their server keys (CLUSTER KEYSLOT). A prefix followed by every two-byte suffix
// (zero bytes, braces and '%' among them) reaches every CRC16 value once, so each prefix puts about four keys in
// every slot.
inline std::map<int, std::vector<std::string>> keys_by_slot(const RedisCluster& cluster,
                                                            const std::vector<std::string>& prefixes) {
    std::vector<std::string> keys, server_keys;
    for (const auto& prefix : prefixes) {
        for (int s = 0; s < 65536; ++s) {
            keys.push_back(prefix + static_cast<char>(s >> 8) + static_cast<char>(s & 255));
            server_keys.push_back(main_server_key(keys.back()));
        }
    }
    const std::vector<int> slots = cluster.key_slots(server_keys);
    std::map<int, std::vector<std::string>> by_slot;
    for (size_t i = 0; i < keys.size(); ++i) by_slot[slots[i]].push_back(keys[i]);
    return by_slot;
}

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_REDIS_CLUSTER_H
