// redis_cluster.cpp -- making the cluster, reading its topology, waiting until it is whole, failing masters over.
// Slot migration is in redis_cluster_migration.cpp.
#include "redis_cluster.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "redis_server.h"

namespace kelvane_test {
namespace {

using Clock = std::chrono::steady_clock;

// One line of CLUSTER NODES: a node as one node sees it.
struct NodeLine {
    std::string id;
    int port = 0;
    std::set<std::string> flags;
    std::string master_id;  // "-" for a master
    std::string link;
    std::vector<std::string> slots;  // "0-5460", "7", or "[7->-id]" for a slot this node is moving
    bool has(const std::string& flag) const { return flags.count(flag) > 0; }
};

std::vector<NodeLine> parse_nodes(const std::string& text) {
    std::vector<NodeLine> out;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        NodeLine n;
        std::string addr, flags, ping, pong, epoch;
        if (!(fields >> n.id >> addr >> flags >> n.master_id >> ping >> pong >> epoch >> n.link)) continue;
        const size_t colon = addr.find(':');
        n.port = std::atoi(addr.c_str() + (colon == std::string::npos ? 0 : colon + 1));
        std::istringstream flag_list(flags);
        for (std::string f; std::getline(flag_list, f, ',');) n.flags.insert(f);
        for (std::string s; fields >> s;) n.slots.push_back(s);
        out.push_back(n);
    }
    return out;
}

// Polls until done() holds, at most timeout_s; done() may explain in why what it still waits for.
template <class Done>
bool poll_until(double timeout_s, Done done) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(timeout_s);
    for (;;) {
        if (done()) return true;
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// The kernel's range for the local ports of outgoing connections, which a node's bind() can collide with.
std::pair<int, int> ephemeral_ports() {
    std::ifstream in("/proc/sys/net/ipv4/ip_local_port_range");
    int low = 32768, high = 60999;
    in >> low >> high;
    return {low, high};
}

// A block of kNodes ports whose cluster bus ports (+10000) are free too, all outside the ephemeral range: the test
// and the nodes connect to each other all the time, and a port one of those connections holds could not be bound.
int free_block() {
    const auto [low, high] = ephemeral_ports();
    const auto clear = [&](int first) {
        if (first + RedisCluster::kNodes - 1 >= low && first <= high) return false;
        for (int i = 0; i < RedisCluster::kNodes; ++i) {
            if (RedisServer::listening(first + i)) return false;
        }
        return true;
    };
    const int start = 13000 + static_cast<int>(getpid() % 500) * 16;
    for (int base = start; base + 10000 + RedisCluster::kNodes <= 65535; base += 16) {
        if (clear(base) && clear(base + 10000)) return base;
    }
    throw std::runtime_error("no free block of ports for a cluster");
}

}  // namespace

RedisCluster::RedisCluster(int first_port, int node_timeout_ms) {
    const int base = first_port != 0 ? first_port : free_block();
    for (int i = 0; i < kNodes; ++i) {
        ports_.push_back(base + i);
        nodes_[base + i] = std::make_unique<ClusterNode>(base + i, node_timeout_ms);
    }
    create();
}

RedisCluster::~RedisCluster() = default;

void RedisCluster::create() {
    for (int port : ports_) ids_[port] = must(port, {"CLUSTER", "MYID"});
    // Distinct epochs before the nodes meet spare the cluster its collision resolution.
    for (int i = 0; i < kNodes; ++i) must(ports_[i], {"CLUSTER", "SET-CONFIG-EPOCH", std::to_string(i + 1)});
    const char* const ranges[3][2] = {{"0", "5460"}, {"5461", "10922"}, {"10923", "16383"}};
    for (int i = 0; i < 3; ++i) must(ports_[i], {"CLUSTER", "ADDSLOTSRANGE", ranges[i][0], ranges[i][1]});
    for (int i = 1; i < kNodes; ++i) must(ports_[0], {"CLUSTER", "MEET", "127.0.0.1", std::to_string(ports_[i])});
    // A replica can only name a master it knows.
    const bool met = poll_until(30, [&] {
        for (int port : ports_) {
            const auto lines = parse_nodes(must(port, {"CLUSTER", "NODES"}));
            if (lines.size() != kNodes) return false;
            for (const auto& n : lines) {
                if (n.has("handshake") || n.has("noaddr") || !ids_.count(n.port) || ids_.at(n.port) != n.id) {
                    return false;
                }
            }
        }
        return true;
    });
    if (!met) throw std::runtime_error("the nodes did not meet:\n" + describe());
    for (int i = 0; i < 3; ++i) must(ports_[3 + i], {"CLUSTER", "REPLICATE", ids_.at(ports_[i])});
    wait_healthy();
}

bool RedisCluster::running(int port) const { return nodes_.at(port)->running(); }

int RedisCluster::any_running() const {
    for (int port : ports_) {
        if (running(port)) return port;
    }
    throw std::runtime_error("no node of the cluster runs");
}

std::string RedisCluster::must(int port, const Argv& argv) const {
    const NodeReply r = node_command(port, argv);
    if (r.failed()) {
        std::string cmd;
        for (const auto& a : argv) cmd += (cmd.empty() ? "" : " ") + a;
        throw std::runtime_error("node " + std::to_string(port) + ": " + cmd + ": " + r.text());
    }
    return r.text();
}

std::string RedisCluster::info_field(int port, const std::string& section, const std::string& field) const {
    const NodeReply r = section == "cluster" ? node_command(port, {"CLUSTER", "INFO"})
                                             : node_command(port, {"INFO", section});
    std::istringstream lines(r.str);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.rfind(field + ":", 0) == 0) return line.substr(field.size() + 1);
    }
    return "";
}

std::vector<int> RedisCluster::masters() const {
    std::vector<int> out;
    for (const auto& n : parse_nodes(must(any_running(), {"CLUSTER", "NODES"}))) {
        if (n.has("master") && !n.slots.empty() && ids_.count(n.port) && running(n.port)) out.push_back(n.port);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<int> RedisCluster::replicas() const {
    std::vector<int> out;
    for (const auto& n : parse_nodes(must(any_running(), {"CLUSTER", "NODES"}))) {
        if (n.has("slave") && ids_.count(n.port) && running(n.port)) out.push_back(n.port);
    }
    std::sort(out.begin(), out.end());
    return out;
}

int RedisCluster::replica_of(int master) const {
    for (const auto& n : parse_nodes(must(any_running(), {"CLUSTER", "NODES"}))) {
        if (n.has("slave") && n.master_id == ids_.at(master) && running(n.port)) return n.port;
    }
    throw std::runtime_error("no running replica of " + std::to_string(master) + "\n" + describe());
}

int RedisCluster::master_of(int replica) const {
    for (const auto& n : parse_nodes(must(any_running(), {"CLUSTER", "NODES"}))) {
        if (n.port != replica) continue;
        for (const auto& [port, id] : ids_) {
            if (id == n.master_id) return port;
        }
    }
    throw std::runtime_error(std::to_string(replica) + " replicates no known master\n" + describe());
}

int RedisCluster::owner_of_slot(int slot) const {
    const NodeReply r = node_command(any_running(), {"CLUSTER", "SLOTS"});
    for (const auto& range : r.elements) {
        if (range.elements.size() >= 3 && range.elements[0].integer <= slot && slot <= range.elements[1].integer) {
            return static_cast<int>(range.elements[2].elements.at(1).integer);
        }
    }
    throw std::runtime_error("no node serves slot " + std::to_string(slot) + "\n" + describe());
}

int RedisCluster::key_slot(const std::string& server_key) const { return key_slots({server_key}).front(); }

std::vector<int> RedisCluster::key_slots(const std::vector<std::string>& server_keys) const {
    std::vector<Argv> commands;
    for (const auto& k : server_keys) commands.push_back({"CLUSTER", "KEYSLOT", k});
    std::vector<int> slots;
    for (const auto& r : node_pipeline(any_running(), commands)) {
        if (r.kind != NodeReply::kInteger) throw std::runtime_error("CLUSTER KEYSLOT: " + r.text());
        slots.push_back(static_cast<int>(r.integer));
    }
    return slots;
}

std::vector<std::string> RedisCluster::keys_on(int port) const {
    std::vector<std::string> keys;
    std::string cursor = "0";
    do {
        const NodeReply r = node_command(port, {"SCAN", cursor, "COUNT", "1000"});
        if (r.kind != NodeReply::kArray || r.elements.size() != 2) throw std::runtime_error("SCAN: " + r.text());
        cursor = r.elements[0].str;
        for (const auto& k : r.elements[1].elements) keys.push_back(k.str);
    } while (cursor != "0");
    return keys;
}

long long RedisCluster::error_count(int port, const std::string& prefix) const {
    const std::string field = info_field(port, "errorstats", "errorstat_" + prefix);
    return field.empty() ? 0 : std::atoll(field.c_str() + field.find('=') + 1);
}

long long RedisCluster::error_count(const std::string& prefix) const {
    long long n = 0;
    for (int port : ports_) n += running(port) ? error_count(port, prefix) : 0;
    return n;
}

void RedisCluster::reset_error_stats() const {
    for (int port : ports_) {
        if (running(port)) must(port, {"CONFIG", "RESETSTAT"});
    }
}

void RedisCluster::manual_failover(int replica) {
    const int old_master = master_of(replica);
    must(replica, {"CLUSTER", "FAILOVER"});
    const bool switched = poll_until(30, [&] {
        return info_field(replica, "replication", "role") == "master" &&
               info_field(old_master, "replication", "role") == "slave";
    });
    if (!switched) throw std::runtime_error("manual failover to " + std::to_string(replica) + " did not happen\n" +
                                            describe());
    wait_healthy();
}

int RedisCluster::kill_master(int master, const std::function<void()>& killed) {
    const int replica = replica_of(master);
    kill(master);
    if (killed) killed();
    if (!poll_until(60, [&] { return info_field(replica, "replication", "role") == "master"; })) {
        throw std::runtime_error(std::to_string(replica) + " was not promoted\n" + describe());
    }
    wait_healthy(60);
    return replica;
}

void RedisCluster::kill(int port) { nodes_.at(port)->kill(); }

void RedisCluster::restart(int port) { nodes_.at(port)->start(); }

bool RedisCluster::healthy(std::string& why) const {
    std::string agreed_view;
    for (int port : ports_) {
        if (!running(port)) continue;
        const std::string name = "node " + std::to_string(port);
        if (info_field(port, "cluster", "cluster_state") != "ok") return why = name + " is not ok", false;
        // Every node's picture of roles, slots and failed nodes, leaving out what only that node knows.
        std::vector<std::string> view;
        const auto lines = parse_nodes(node_command(port, {"CLUSTER", "NODES"}).str);
        if (lines.size() != kNodes) return why = name + " does not know every node", false;
        for (const auto& n : lines) {
            const bool up = ids_.count(n.port) && running(n.port);
            if (up && (n.has("fail") || n.has("fail?") || n.link != "connected")) {
                return why = name + " does not see " + std::to_string(n.port) + " up", false;
            }
            if (!up && !n.has("fail")) return why = name + " has not marked " + std::to_string(n.port) + " failed", false;
            std::string entry = std::to_string(n.port) + (n.has("master") ? " master" : " replica of ") +
                                (n.has("master") ? "" : n.master_id) + (up ? "" : " failed");
            for (const auto& s : n.slots) {
                if (s.front() == '[') return why = name + " has a slot in migration", false;
                entry += " " + s;
            }
            view.push_back(entry);
        }
        std::sort(view.begin(), view.end());
        std::string joined;
        for (const auto& v : view) joined += v + "\n";
        if (agreed_view.empty()) agreed_view = joined;
        if (joined != agreed_view) return why = name + " sees another cluster", false;
        if (info_field(port, "replication", "role") == "slave" &&
            info_field(port, "replication", "master_link_status") != "up") {
            return why = name + " is not in sync with its master", false;
        }
    }
    return true;
}

void RedisCluster::wait_healthy(double timeout_s) const {
    std::string why;
    if (!poll_until(timeout_s, [&] { return healthy(why); })) {
        throw std::runtime_error("the cluster did not become whole: " + why + "\n" + describe());
    }
}

void RedisCluster::wait_state(const std::string& state, double timeout_s) const {
    const bool reached = poll_until(timeout_s, [&] {
        for (int port : ports_) {
            if (running(port) && info_field(port, "cluster", "cluster_state") != state) return false;
        }
        return true;
    });
    if (!reached) throw std::runtime_error("not every node says cluster_state:" + state + "\n" + describe());
}

std::string RedisCluster::describe() const {
    std::string out;
    for (int port : ports_) {
        out += "--- node " + std::to_string(port) + (running(port) ? "" : " (not running)") + "\n";
        if (running(port)) out += node_command(port, {"CLUSTER", "NODES"}).text();
        out += nodes_.at(port)->log_tail(8);
    }
    return out;
}

}  // namespace kelvane_test
