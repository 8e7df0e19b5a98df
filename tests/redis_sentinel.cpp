// redis_sentinel.cpp -- starting the master, its replicas and the Sentinels, waiting until the Sentinels know
// each other and the replicas, failing the master over and waiting for the Sentinels to name the new one.
#include "redis_sentinel.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

namespace kelvane_test {
namespace {

// A free port that none of taken is.
int another_free_port(const std::set<int>& taken) {
    for (;;) {
        const int port = RedisServer::free_port();
        if (!taken.count(port)) return port;
    }
}

std::string temporary_directory() {
    char dir[] = "/tmp/kelvane-sentinel-XXXXXX";
    if (mkdtemp(dir) == nullptr) throw std::runtime_error("mkdtemp failed");
    return dir;
}

}  // namespace

RedisSentinels::RedisSentinels(SentinelSetup setup) : setup_(std::move(setup)) {
    std::set<int> taken(setup_.data_ports.begin(), setup_.data_ports.end());
    taken.insert(setup_.sentinel_ports.begin(), setup_.sentinel_ports.end());
    for (auto* ports : {&setup_.data_ports, &setup_.sentinel_ports}) {
        while (ports->size() < 3) {
            ports->push_back(another_free_port(taken));
            taken.insert(ports->back());
        }
    }
    try {
        for (size_t i = 0; i < setup_.data_ports.size(); ++i) start_data_node(setup_.data_ports[i], i > 0);
        for (int port : setup_.sentinel_ports) start_sentinel(port, kName, setup_.data_ports[0], 2);
    } catch (...) {
        stop_all();  // no destructor runs for a half-made object
        throw;
    }
}

RedisSentinels::~RedisSentinels() { stop_all(); }

void RedisSentinels::stop_all() {
    for (auto& [port, process] : processes_) {
        kill(port);
        std::error_code ignored;
        std::filesystem::remove_all(process.dir, ignored);
    }
    processes_.clear();
}

void RedisSentinels::start_data_node(int port, bool replica) {
    Process& p = processes_[port];
    p.dir = temporary_directory();
    p.admin = port;
    // Data in memory only; diskless replication without delay lets a replica sync at once.
    Argv args = {"redis-server", "--port", std::to_string(port), "--bind", "127.0.0.1", "--save", "",
                 "--appendonly", "no", "--dir", p.dir, "--logfile", "redis.log", "--repl-diskless-sync", "yes",
                 "--repl-diskless-sync-delay", "0"};
    if (replica) args.insert(args.end(), {"--replicaof", "127.0.0.1", std::to_string(setup_.data_ports[0])});
    if (!setup_.data_password.empty()) {
        args.insert(args.end(), {"--requirepass", setup_.data_password, "--masterauth", setup_.data_password});
    }
    const ServerOptions& tls = setup_.tls;
    if (!tls.tls_cert.empty()) {
        std::set<int> taken(setup_.data_ports.begin(), setup_.data_ports.end());
        taken.insert(setup_.sentinel_ports.begin(), setup_.sentinel_ports.end());
        for (const auto& [other, process] : processes_) taken.insert(process.admin);
        p.admin = another_free_port(taken);
        args[2] = std::to_string(p.admin);
        args.insert(args.end(), {"--tls-port", std::to_string(port), "--tls-cert-file", tls.tls_cert, "--tls-key-file",
                                 tls.tls_key, "--tls-ca-cert-file", tls.tls_ca, "--tls-replication", "yes",
                                 "--tls-auth-clients", tls.tls_auth_clients ? "yes" : "no"});
    }
    p.pid = spawn_server(args, p.admin);
}

void RedisSentinels::start_sentinel(int port, const std::string& name, int master, int quorum) {
    Process& p = processes_[port];
    p.dir = temporary_directory();
    p.admin = port;
    p.sentinel = true;
    // A Sentinel rewrites its configuration file as it learns, so each has one of its own. A master silent for a
    // second is down, and a failover that stalls is given up after three seconds, so that failovers take seconds.
    std::ofstream conf(p.dir + "/sentinel.conf");
    conf << "port " << port << "\nbind 127.0.0.1\ndir " << p.dir << "\nlogfile " << p.dir << "/redis.log\n"
         << "sentinel monitor " << name << " 127.0.0.1 " << master << " " << quorum << "\n"
         << "sentinel down-after-milliseconds " << name << " 1000\n"
         << "sentinel failover-timeout " << name << " 3000\n";
    if (!setup_.data_password.empty()) conf << "sentinel auth-pass " << name << " " << setup_.data_password << "\n";
    if (!setup_.sentinel_password.empty()) {
        conf << "requirepass " << setup_.sentinel_password << "\nsentinel sentinel-pass " << setup_.sentinel_password
             << "\n";
    }
    // Its own port stays plaintext; it reaches the servers over TLS with the servers' certificate.
    if (!setup_.tls.tls_cert.empty()) {
        conf << "tls-replication yes\ntls-cert-file " << setup_.tls.tls_cert << "\ntls-key-file " << setup_.tls.tls_key
             << "\ntls-ca-cert-file " << setup_.tls.tls_ca << "\n";
    }
    conf.close();
    p.pid = spawn_server({"redis-server", p.dir + "/sentinel.conf", "--sentinel"}, port);
}

int RedisSentinels::start_lone_sentinel(int port, const std::string& name) {
    std::set<int> taken;
    for (const auto& [other, process] : processes_) taken.insert({other, process.admin});
    taken.insert(port);
    const int own = another_free_port(taken);
    start_sentinel(own, name, port, 1);
    return own;
}

const std::string& RedisSentinels::password_of(int port) const {
    return processes_.at(port).sentinel ? setup_.sentinel_password : setup_.data_password;
}

NodeReply RedisSentinels::must_reply(int port, const Argv& argv) const {
    return kelvane_test::must_reply(admin(port), argv, password_of(port));
}

std::string RedisSentinels::must(int port, const Argv& argv) const { return must_reply(port, argv).str; }

std::string RedisSentinels::role(int port) const { return must_reply(port, {"ROLE"}).elements.at(0).str; }

int RedisSentinels::master() const {
    for (int port : setup_.sentinel_ports) {
        const Process& p = processes_.at(port);
        if (p.pid <= 0 || p.frozen) continue;
        return std::stoi(must_reply(port, {"SENTINEL", "GET-MASTER-ADDR-BY-NAME", kName}).elements.at(1).str);
    }
    throw std::runtime_error("no Sentinel is running");
}

bool RedisSentinels::ready(std::string& why) const {
    const int master_port = master();
    std::vector<int> sentinels;
    for (int port : setup_.sentinel_ports) {
        if (processes_.at(port).pid > 0 && !processes_.at(port).frozen) sentinels.push_back(port);
    }
    for (int port : setup_.data_ports) {
        if (port == master_port) continue;
        why = "replica " + std::to_string(port) + " is not in sync";
        if (field_of(must(port, {"INFO", "replication"}), "master_link_status") != "up") return false;
    }
    for (int port : sentinels) {
        why = "Sentinel " + std::to_string(port) + " does not know the master, its replicas or the other Sentinels";
        const NodeReply master = must_reply(port, {"SENTINEL", "MASTER", kName});
        if (field_of(master, "port") != std::to_string(master_port) || field_of(master, "flags") != "master" ||
            field_of(master, "num-slaves") != std::to_string(setup_.data_ports.size() - 1) ||
            field_of(master, "num-other-sentinels") != std::to_string(sentinels.size() - 1)) {
            return false;
        }
        for (const NodeReply& replica : must_reply(port, {"SENTINEL", "REPLICAS", kName}).elements) {
            if (field_of(replica, "flags") != "slave" || field_of(replica, "master-link-status") != "ok") return false;
        }
    }
    return true;
}

void RedisSentinels::wait_ready(double timeout_s) const {
    std::string why;
    if (!poll_until(timeout_s, [&] { return ready(why); })) throw std::runtime_error("not ready: " + why);
}

int RedisSentinels::wait_for_new_master(int old, double timeout_s) const {
    int found = 0;
    const bool switched = poll_until(timeout_s, [&] {
        std::set<int> named;
        for (int port : setup_.sentinel_ports) {
            const Process& p = processes_.at(port);
            if (p.pid <= 0 || p.frozen) continue;
            const NodeReply r = node_pipeline(port, {{"SENTINEL", "GET-MASTER-ADDR-BY-NAME", kName}},
                                              setup_.sentinel_password).front();
            if (r.failed || r.elements.size() != 2) return false;
            named.insert(std::stoi(r.elements[1].str));
        }
        if (named.size() != 1 || *named.begin() == old) return false;
        found = *named.begin();
        const NodeReply role = node_pipeline(admin(found), {{"ROLE"}}, setup_.data_password).front();
        return !role.failed && !role.elements.empty() && role.elements[0].str == "master";
    });
    if (!switched) throw std::runtime_error("the Sentinels named no new master in time");
    return found;
}

int RedisSentinels::failover() {
    const int old = master();
    for (int port : setup_.sentinel_ports) {
        const Process& p = processes_.at(port);
        if (p.pid <= 0 || p.frozen) continue;
        must(port, {"SENTINEL", "FAILOVER", kName});
        return wait_for_new_master(old);
    }
    throw std::runtime_error("no Sentinel is running");
}

void RedisSentinels::kill(int port) {
    Process& p = processes_.at(port);
    if (p.pid <= 0) return;
    ::kill(p.pid, SIGKILL);
    waitpid(p.pid, nullptr, 0);
    p.pid = -1;
}

void RedisSentinels::freeze(int port) {
    Process& p = processes_.at(port);
    if (p.pid <= 0 || ::kill(p.pid, SIGSTOP) != 0) throw std::runtime_error("cannot freeze " + std::to_string(port));
    p.frozen = true;
}

void RedisSentinels::thaw(int port) {
    Process& p = processes_.at(port);
    if (p.pid <= 0 || ::kill(p.pid, SIGCONT) != 0) throw std::runtime_error("cannot thaw " + std::to_string(port));
    p.frozen = false;
}

}  // namespace kelvane_test
