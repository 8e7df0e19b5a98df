// redis_cluster.h -- what the cluster tests stand on: a private Redis Cluster for one test (six cluster-enabled
// redis-server processes on loopback, own temporary directories, no persistence, three masters with one replica
// each) that tests fail over, kill, freeze and restart nodes of and move slots in, with bounded waits of its own,
// and cluster-enabled strangers beside it that belong to no cluster; where kelvane keys live in it; and a kelvane
// client with its own memory manager that checks every buffer came back.
#ifndef KELVANE_TESTS_REDIS_CLUSTER_H
#define KELVANE_TESTS_REDIS_CLUSTER_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <initializer_list>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelvane.h"
#include "node_commands.h"
#include "redis_server.h"

namespace kelvane_test {

// One slot on its way from one master to another (ports).
struct Migration { int slot, source, target; };

class RedisCluster {
public:
    static constexpr int kNodes = 6;
    static constexpr int kStrangers = 2;  // at most, on the ports after the nodes'

    // Nodes on first_port .. first_port + 5, cluster bus on each port + 10000; 0 picks a free block. The first
    // three start as masters of slots 0-5460, 5461-10922 and 10923-16383, node 3 + i as the replica of node i.
    // With a certificate in tls (tls_cert, tls_key, tls_ca, tls_auth_clients), the nodes speak TLS only on those
    // ports, to clients, to each other and to their replicas; the fixture itself talks to each on a plaintext port
    // kAdminOffset above it. Every port the fixture hands out or takes is a client's (TLS) port.
    explicit RedisCluster(int first_port = 0, ServerOptions tls = {});
    static constexpr int kAdminOffset = 8;
    ~RedisCluster();
    RedisCluster(const RedisCluster&) = delete;
    RedisCluster& operator=(const RedisCluster&) = delete;

    std::vector<int> ports() const;    // the running nodes of the cluster (strangers are not)
    std::vector<int> masters() const;  // running masters that serve slots, in port order
    int replica_of(int master) const;
    int owner_of_slot(int slot) const;
    // Whether node port lists a master without an address (port 0) in CLUSTER SLOTS.
    bool lists_master_without_address(int port) const;
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
    void freeze(int port);  // SIGSTOP: the node accepts connections and answers nothing
    void thaw(int port);    // SIGCONT
    // A cluster-enabled node on the next free port of the block that knows only itself and serves no slot, as a
    // spare or a node that lost its nodes.conf is. Gives its port.
    int start_stranger();
    // The node killed and started again on its port with an empty directory: a stranger with a new identity, at
    // an address the cluster still knows under the old one.
    void restart_as_stranger(int port);
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
        bool member = true;  // false for a stranger
    };
    void start(int port);
    void signal(int port, int sig) const;
    int admin(int port) const { return tls_.tls_cert.empty() ? port : port + kAdminOffset; }
    // A port the nodes named over the plaintext connection, as a client's port.
    int client_port(int port) const {
        return !tls_.tls_cert.empty() && nodes_.count(port - kAdminOffset) ? port - kAdminOffset : port;
    }
    void stop_all();
    int any_running() const { return ports().at(0); }
    bool healthy(std::string& why) const;

    ServerOptions tls_;
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

using Clock = std::chrono::steady_clock;

inline double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Waits as zset's client does (1 s to connect, 2 attempts, 2 s for a reply), or as it is told.
class KvClient {
public:
    // The most any one call of zset's client may take: connect attempts x connect timeout + command timeout.
    static constexpr double kCallBound_s = 2 * 1 + 2;

    explicit KvClient(int32_t connect_s = 1, int32_t command_s = 2, int32_t attempts = 2)
        : mm_(kv_mm_create(nullptr, nullptr, nullptr, 0)), client_(kv_client_create(connect_s, command_s, mm_, attempts)) {
        if (mm_ == nullptr || client_ == nullptr) throw std::runtime_error("cannot create a kelvane client");
    }
    ~KvClient() {
        kv_client_destroy(client_);
        EXPECT_EQ(mm_->live_count(mm_), 0u) << "buffers the library handed out and nobody got back";
        kv_mm_destroy(mm_);
    }
    KvClient(const KvClient&) = delete;
    KvClient& operator=(const KvClient&) = delete;

    int32_t add_seed(int port, const kv_server_options* options = nullptr) {
        return options == nullptr ? kv_server_add(client_, "127.0.0.1", static_cast<uint32_t>(port), nullptr)
                                  : kv_server_add_options(client_, "127.0.0.1", static_cast<uint32_t>(port), options);
    }
    kv_client* get() const { return client_; }

    int32_t zadd(const std::string& key, double score, const std::string& member) {
        return kv_zadd(client_, key.data(), key.size(), score, member.data(), member.size(), 0);
    }

    int32_t zaddval(const std::string& key, double score, const std::string& member, const std::string& value) {
        return kv_zaddval(client_, key.data(), key.size(), score, member.data(), member.size(), value.data(),
                          value.size(), 0);
    }

    struct Scored {
        int32_t status = -1;
        double score = 0;
        std::optional<std::string> value;
    };
    Scored zscore(const std::string& key, const std::string& member) {
        Scored out;
        char* value = nullptr;
        size_t len = 0;
        out.status = kv_zscore(client_, key.data(), key.size(), member.data(), member.size(), &out.score, &value, &len);
        if (value != nullptr) out.value = std::string(value, len);
        mm_->release(value);
        return out;
    }

    // A whole sorted set: member -> (score, value).
    struct Members {
        int32_t status = -1;
        std::map<std::string, std::pair<double, std::optional<std::string>>> items;
    };
    Members zrange_all(const std::string& key) {
        Members out;
        void **members = nullptr, **values = nullptr;
        size_t count = 0, *members_len = nullptr, *values_len = nullptr;
        double* scores = nullptr;
        out.status = kv_zrange(client_, key.data(), key.size(), 0, -1, &members, &count, &members_len,
                               ZSET_WITH_SCORES | ZSET_WITH_VALUES, &scores, &values, &values_len);
        for (size_t k = 0; k < count; ++k) {
            auto& item = out.items[std::string(static_cast<char*>(members[k]), members_len[k])];
            item.first = scores[k];
            if (values[k] != nullptr) item.second.emplace(static_cast<char*>(values[k]), values_len[k]);
            mm_->release(members[k]);
            mm_->release(values[k]);
        }
        for (void* array : std::initializer_list<void*>{members, members_len, scores, values, values_len}) {
            mm_->release(array);
        }
        return out;
    }

private:
    kv_mm* mm_;
    kv_client* client_;
};

// Expects kv_zscore of member in key to give score and value.
inline void expect_scored(KvClient& client, const std::string& key, const std::string& member, double score,
                          const std::string& value) {
    const KvClient::Scored got = client.zscore(key, member);
    EXPECT_TRUE(got.status == KV_SUCCESS && got.score == score && got.value == value)
        << member << ": status " << got.status << ", score " << got.score << ", value " << got.value.value_or("-");
}

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_REDIS_CLUSTER_H
