// redis_cluster.cpp -- starting and killing the cluster's nodes, talking to them, waiting until the cluster is
// whole, failing masters over and moving slots.
#include "redis_cluster.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <thread>

#include "node_commands.h"
#include "redis_server.h"

namespace kelvane_test {
namespace {

// A block of ports whose cluster bus ports (+10000) are free too, all below the kernel's range for the local
// ports of outgoing connections: the test and the nodes connect to each other all the time, and a port one of
// those connections holds could not be bound.
int free_block() {
    int low = 32768;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> low;
    for (int base = 13000 + static_cast<int>(getpid() % 500) * 16;
         base + 10000 + RedisCluster::kNodes + RedisCluster::kStrangers < low;
         base += 16) {
        bool clear = true;
        for (int i = 0; i < RedisCluster::kNodes + RedisCluster::kStrangers; ++i) {
            clear = clear && !RedisServer::listening(base + i) && !RedisServer::listening(base + 10000 + i) &&
                    !RedisServer::listening(base + RedisCluster::kAdminOffset + i);
        }
        if (clear) return base;
    }
    throw std::runtime_error("no free block of ports for a cluster");
}

}  // namespace

RedisCluster::RedisCluster(int first_port, ServerOptions tls) : tls_(std::move(tls)) {
    const int base = first_port != 0 ? first_port : free_block();
    try {
        for (int port = base; port < base + kNodes; ++port) {
            char dir[] = "/tmp/kelvane-cluster-XXXXXX";
            if (mkdtemp(dir) == nullptr) throw std::runtime_error("mkdtemp failed");
            nodes_[port].dir = dir;
            start(port);
            nodes_[port].id = must(port, {"CLUSTER", "MYID"});
        }
        // Distinct epochs before the nodes meet spare the cluster its collision resolution.
        for (int i = 0; i < kNodes; ++i) must(base + i, {"CLUSTER", "SET-CONFIG-EPOCH", std::to_string(i + 1)});
        const char* const ranges[3][2] = {{"0", "5460"}, {"5461", "10922"}, {"10923", "16383"}};
        for (int i = 0; i < 3; ++i) must(base + i, {"CLUSTER", "ADDSLOTSRANGE", ranges[i][0], ranges[i][1]});
        for (int i = 1; i < kNodes; ++i) must(base, {"CLUSTER", "MEET", "127.0.0.1", std::to_string(base + i)});
        // A replica can only name a master it knows: until then it answers an error.
        for (int i = 0; i < 3; ++i) {
            const Argv replicate = {"CLUSTER", "REPLICATE", nodes_.at(base + i).id};
            poll_until(30, [&] { return !node_pipeline(admin(base + 3 + i), {replicate}).front().failed; });
        }
        wait_healthy();
    } catch (...) {
        stop_all();  // no destructor runs for a half-made object
        throw;
    }
}

RedisCluster::~RedisCluster() { stop_all(); }

void RedisCluster::stop_all() {
    for (auto& [port, node] : nodes_) {
        kill(port);
        std::error_code ignored;
        std::filesystem::remove_all(node.dir, ignored);
    }
    nodes_.clear();
}

void RedisCluster::start(int port) {
    Node& node = nodes_.at(port);
    // Data in memory only. Diskless replication without delay lets a replica sync at once; replica migration off
    // and validity factor 0 keep the topology where the tests put it and let any replica take over its master. A
    // node silent for 2 s is taken for failing: shorter would be quicker, but a loaded two-core machine can delay
    // a node's pings by a good part of a second.
    std::vector<std::string> args = {
        "redis-server", "--port", std::to_string(port), "--bind", "127.0.0.1", "--save", "",
        "--appendonly", "no", "--dir", node.dir, "--logfile", "redis.log", "--cluster-enabled", "yes",
        "--cluster-config-file", "nodes.conf", "--cluster-node-timeout", "2000",
        "--cluster-replica-validity-factor", "0", "--cluster-allow-replica-migration", "no",
        "--repl-diskless-sync", "yes", "--repl-diskless-sync-delay", "0"};
    if (!tls_.tls_cert.empty()) {
        args[2] = std::to_string(admin(port));
        args.insert(args.end(), {"--tls-port", std::to_string(port), "--tls-cert-file", tls_.tls_cert,
                                 "--tls-key-file", tls_.tls_key, "--tls-ca-cert-file", tls_.tls_ca, "--tls-cluster",
                                 "yes", "--tls-replication", "yes", "--tls-auth-clients",
                                 tls_.tls_auth_clients ? "yes" : "no"});
    }
    node.pid = spawn_server(args, port);
}

void RedisCluster::kill(int port) {
    Node& node = nodes_.at(port);
    if (node.pid <= 0) return;
    ::kill(node.pid, SIGKILL);
    waitpid(node.pid, nullptr, 0);
    node.pid = -1;
}

void RedisCluster::signal(int port, int sig) const {
    const pid_t pid = nodes_.at(port).pid;
    if (pid <= 0 || ::kill(pid, sig) != 0) throw std::runtime_error("cannot signal node " + std::to_string(port));
}

void RedisCluster::freeze(int port) { signal(port, SIGSTOP); }

void RedisCluster::thaw(int port) { signal(port, SIGCONT); }

int RedisCluster::start_stranger() {
    const int port = nodes_.rbegin()->first + 1;
    if (port >= nodes_.begin()->first + kNodes + kStrangers) throw std::runtime_error("no port left for a stranger");
    char dir[] = "/tmp/kelvane-cluster-XXXXXX";
    if (mkdtemp(dir) == nullptr) throw std::runtime_error("mkdtemp failed");
    nodes_[port].dir = dir;
    nodes_[port].member = false;
    start(port);
    nodes_[port].id = must(port, {"CLUSTER", "MYID"});
    return port;
}

void RedisCluster::restart_as_stranger(int port) {
    kill(port);
    Node& node = nodes_.at(port);
    std::filesystem::remove_all(node.dir);
    std::filesystem::create_directory(node.dir);
    node.member = false;
    start(port);
    node.id = must(port, {"CLUSTER", "MYID"});
}

std::string RedisCluster::must(int port, const Argv& argv) const { return must_reply(admin(port), argv).str; }

std::string RedisCluster::role(int port) const { return field_of(must(port, {"INFO", "replication"}), "role"); }

std::vector<int> RedisCluster::ports() const {
    std::vector<int> out;
    for (const auto& [port, node] : nodes_) {
        if (node.pid > 0 && node.member) out.push_back(port);
    }
    return out;
}

// Each element of CLUSTER SLOTS: first slot, last slot, then the master and its replicas as [ip, port, id, ...].
std::vector<int> RedisCluster::masters() const {
    std::set<int> out;
    for (const auto& range : must_reply(admin(any_running()), {"CLUSTER", "SLOTS"}).elements) {
        out.insert(client_port(std::stoi(range.elements.at(2).elements.at(1).str)));
    }
    return {out.begin(), out.end()};
}

int RedisCluster::replica_of(int master) const {
    // "slave0:ip=127.0.0.1,port=13003,state=online,..."
    const std::string replica = field_of(must(master, {"INFO", "replication"}), "slave0");
    if (replica.find("port=") == std::string::npos) throw std::runtime_error("no replica of " + std::to_string(master));
    return client_port(std::atoi(replica.c_str() + replica.find("port=") + 5));
}

int RedisCluster::owner_of_slot(int slot) const {
    for (const auto& range : must_reply(admin(any_running()), {"CLUSTER", "SLOTS"}).elements) {
        if (std::stoi(range.elements.at(0).str) <= slot && slot <= std::stoi(range.elements.at(1).str)) {
            return client_port(std::stoi(range.elements.at(2).elements.at(1).str));
        }
    }
    throw std::runtime_error("no node serves slot " + std::to_string(slot));
}

bool RedisCluster::lists_master_without_address(int port) const {
    for (const auto& range : must_reply(admin(port), {"CLUSTER", "SLOTS"}).elements) {
        if (range.elements.at(2).elements.at(1).str == "0") return true;
    }
    return false;
}

std::vector<int> RedisCluster::key_slots(const std::vector<std::string>& server_keys) const {
    std::vector<Argv> commands;
    for (const auto& k : server_keys) commands.push_back({"CLUSTER", "KEYSLOT", k});
    std::vector<int> slots;
    for (const auto& r : node_pipeline(admin(any_running()), commands)) {
        if (r.failed) throw std::runtime_error("CLUSTER KEYSLOT: " + r.str);
        slots.push_back(std::stoi(r.str));
    }
    return slots;
}

long long RedisCluster::error_count(const std::string& prefix) const {
    long long n = 0;
    for (int port : ports()) {
        const std::string field = field_of(must(port, {"INFO", "errorstats"}), "errorstat_" + prefix);
        n += field.empty() ? 0 : std::atoll(field.c_str() + field.find('=') + 1);
    }
    return n;
}

void RedisCluster::reset_error_stats() const {
    for (int port : ports()) must(port, {"CONFIG", "RESETSTAT"});
}

void RedisCluster::manual_failover(int replica) {
    must(replica, {"CLUSTER", "FAILOVER"});
    if (!poll_until(30, [&] { return role(replica) == "master"; })) {
        throw std::runtime_error("manual failover to " + std::to_string(replica) + " did not happen");
    }
    wait_healthy();
}

bool RedisCluster::healthy(std::string& why) const {
    std::set<std::string> agreed_view;
    for (int port : ports()) {
        why = "node " + std::to_string(port) + " is not ok";
        if (field_of("\n" + must(port, {"CLUSTER", "INFO"}), "cluster_state") != "ok") return false;
        // Which master serves which slots with which replica, failed nodes left out: the same on every node (a set:
        // each node lists the ranges in an order of its own).
        std::set<std::string> view;
        for (const auto& range : must_reply(admin(port), {"CLUSTER", "SLOTS"}).elements) view.insert(flat(range));
        if (agreed_view.empty()) agreed_view = view;
        why = "node " + std::to_string(port) + " sees another cluster or is not in sync with its master";
        if (view != agreed_view) return false;
        const std::string replication = must(port, {"INFO", "replication"});
        const bool replica = field_of(replication, "role") == "slave";
        if (replica && field_of(replication, "master_link_status") != "up") return false;
    }
    return true;
}

void RedisCluster::wait_healthy(double timeout_s) const {
    std::string why;
    if (!poll_until(timeout_s, [&] { return healthy(why); })) {
        throw std::runtime_error("the cluster did not become whole: " + why);
    }
}

Migration RedisCluster::open_migration(int slot, int target) const {
    const Migration m{slot, owner_of_slot(slot), target};
    // The target first: once the source starts answering ASK, the target must already accept ASKING.
    must(target, {"CLUSTER", "SETSLOT", std::to_string(slot), "IMPORTING", nodes_.at(m.source).id});
    must(m.source, {"CLUSTER", "SETSLOT", std::to_string(slot), "MIGRATING", nodes_.at(target).id});
    return m;
}

void RedisCluster::move_keys(const Migration& m, const std::vector<std::string>& server_keys) const {
    if (server_keys.empty()) return;
    Argv migrate = {"MIGRATE", "127.0.0.1", std::to_string(m.target), "", "0", "5000", "KEYS"};
    migrate.insert(migrate.end(), server_keys.begin(), server_keys.end());
    must(m.source, migrate);  // OK, or NOKEY when none of them is there (anymore)
}

size_t RedisCluster::move_batch(const Migration& m, size_t batch) const {
    const Argv get_keys = {"CLUSTER", "GETKEYSINSLOT", std::to_string(m.slot), std::to_string(batch)};
    std::vector<std::string> names;
    for (const auto& k : must_reply(admin(m.source), get_keys).elements) names.push_back(k.str);
    move_keys(m, names);
    return names.size();
}

void RedisCluster::close_migration(const Migration& m) const {
    const Argv assign = {"CLUSTER", "SETSLOT", std::to_string(m.slot), "NODE", nodes_.at(m.target).id};
    // The target first, so that it owns the slot (with a new epoch the others will take) before the source stops
    // answering ASK and starts answering MOVED; the source refuses while it still holds keys of the slot.
    must(m.target, assign);
    must(m.source, assign);
    for (int port : masters()) {
        if (port != m.target && port != m.source) must(port, assign);
    }
    wait_healthy();
}

}  // namespace kelvane_test
