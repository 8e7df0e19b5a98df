// router_nodes.cpp -- the nodes a router knows, the seeds among them, and
// their connections: opened by one thread at a time, and checked once for
// the function library.
#include <algorithm>

#include "function_library.h"
#include "kelvane.h"
#include "router.h"
#include "secret.h"

namespace kelvane {

Router::Node& Router::node_locked(const Endpoint& endpoint) {
    for (auto& n : nodes_) {
        if (n->endpoint == endpoint) return *n;
    }
    auto fresh = std::make_unique<Node>();
    fresh->endpoint = endpoint;
    // Nodes the cluster names use the settings of the first seed that has
    // credentials, or else of the first seed: the nodes of one cluster share
    // their users and their certificates' issuer.
    for (const Node* seed : seeds_) {
        if (!fresh->settings || seed->settings->credentials) fresh->settings = seed->settings;
        if (seed->settings->credentials) break;
    }
    if (!fresh->settings) fresh->settings = std::make_shared<const NodeSettings>();
    nodes_.push_back(std::move(fresh));
    return *nodes_.back();
}

void Router::learn_mode(Node& n) {
    // A Sentinel leads to a store only by a master's name (add_sentinel).
    const NodeMode greeted = n.connection.mode();
    if (greeted == NodeMode::unknown || greeted == NodeMode::sentinel) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (mode_.load() != NodeMode::unknown) return;
    if (greeted == NodeMode::standalone) standalone_ = &n;
    if (greeted == NodeMode::cluster) refresh_due_ = true;
    mode_.store(greeted, std::memory_order_release);
}

bool Router::take_turn(Node& n, bool Node::*turn, Deadline deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (n.*turn) {
        if (changed_.wait_until(lock, deadline.at()) == std::cv_status::timeout && n.*turn) return false;
    }
    n.*turn = true;
    return true;
}

void Router::end_turn(Node& n, bool Node::*turn) {
    const std::lock_guard<std::mutex> lock(mutex_);
    n.*turn = false;
    changed_.notify_all();
}

int32_t Router::connect(Node& n, Deadline deadline, int attempts) {
    if (n.connection.usable()) return KV_SUCCESS;
    // Another thread may be opening it: wait for that, within our deadline.
    uint64_t seen = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        seen = n.opened;
    }
    if (!take_turn(n, &Node::opening, deadline)) {
        note(KV_CONNECT_FAILED, n, describe(n.endpoint) + ": another call was still connecting at the deadline");
        return KV_CONNECT_FAILED;
    }
    struct Turn {
        Router& router;
        Node& node;
        ~Turn() { router.end_turn(node, &Node::opening); }
    } turn{*this, n};
    if (n.connection.usable()) return KV_SUCCESS;  // opened while we waited
    int32_t last = KV_SUCCESS;
    std::string last_failure;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (n.opened != seen && n.last_open != KV_SUCCESS) {
            last = n.last_open;
            last_failure = n.last_open_failure;
        }
    }
    if (last != KV_SUCCESS) {
        // It failed while we waited, for a call that came first: the same
        // attempt again would meet the same.
        note(last, n, std::move(last_failure));
        return last;
    }
    const std::shared_ptr<const NodeSettings> settings = settings_of(n);
    int32_t status = KV_CONNECT_FAILED;
    std::string why = describe(n.endpoint) + ": no time left to connect";
    for (int attempt = 0; attempt < attempts && !deadline.passed(); ++attempt) {
        status = n.connection.open(n.endpoint, *settings, deadline.within(settings_.connect_timeout),
                                   command_deadline(deadline));
        if (status == KV_SUCCESS) break;
        why = n.connection.failure();
        // Only a failure to reach the server is worth another attempt, and
        // not a refusal: nothing listens there now.
        if (status != KV_CONNECT_FAILED || n.connection.refused()) break;
    }
    if (status != KV_SUCCESS) redact(why, settings->password());
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        n.last_open = status;
        n.last_open_failure = status != KV_SUCCESS ? why : std::string();
        ++n.opened;
    }
    if (status != KV_SUCCESS) {
        note_failure(status, std::move(why));
        return status;
    }
    learn_mode(n);
    return status;
}

void Router::note(int32_t status, const Node& n, std::string text) const {
    redact(text, settings_of(n)->password());
    note_failure(status, std::move(text));
}

int32_t Router::check_library(Node& n, Deadline deadline) {
    if (n.library_checked.load(std::memory_order_acquire)) return KV_SUCCESS;
    // One thread looks (and loads); the others wait for its answer.
    if (!take_turn(n, &Node::checking_library, deadline)) return KV_TIMEOUT;
    int32_t status = KV_SUCCESS;
    try {
        if (!n.library_checked.load(std::memory_order_acquire)) {
            status = ensure_function_library(n.connection, command_deadline(deadline));
            if (status == KV_SUCCESS) n.library_checked.store(true, std::memory_order_release);
        }
    } catch (...) {
        end_turn(n, &Node::checking_library);
        throw;
    }
    end_turn(n, &Node::checking_library);
    return status;
}

int32_t Router::refuse_unnamed_sentinel(const Node& seed) {
    if (seed.connection.mode() != NodeMode::sentinel) return KV_SUCCESS;
    note(KV_INVALID_PARAMETER, seed, describe(seed.endpoint) +
         " is a Sentinel: give the name of the master it watches (sentinel_master, KELVANE_SENTINEL_MASTER)");
    return KV_INVALID_PARAMETER;
}

int32_t Router::connect_seed(Node& seed, Deadline deadline) {
    try {
        return connect(seed, deadline, settings_.connect_attempts);
    } catch (...) {
        seed.connection.close();  // whatever it had read is out of step now
        throw;
    }
}

int32_t Router::add_seed(const Endpoint& seed, std::shared_ptr<const NodeSettings> settings,
                         Deadline deadline) {
    Node* registered = nullptr;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (mode_.load() == NodeMode::sentinel) {
            note_failure(KV_INVALID_PARAMETER, describe(seed) + " is a data node, the seeds before it Sentinels");
            return KV_INVALID_PARAMETER;
        }
        for (const Node* s : seeds_) {
            if (s->endpoint == seed) {
                note_failure(KV_ALREADY_EXISTS, describe(seed) + " is a seed already");
                return KV_ALREADY_EXISTS;
            }
        }
        // Everything that may run out of memory comes before the seed is
        // registered, and registering it cannot fail: once in, it stays.
        seeds_.reserve(seeds_.size() + 1);
        Node& n = node_locked(seed);
        n.settings = std::move(settings);
        seeds_.push_back(&n);
        registered = &n;
    }
    Node& n = *registered;
    const NodeMode before = mode_.load();
    const int32_t status = connect_seed(n, deadline);
    const auto unregister = [&] {
        const std::lock_guard<std::mutex> lock(mutex_);
        seeds_.erase(std::remove(seeds_.begin(), seeds_.end(), &n), seeds_.end());
    };
    if (status == KV_SUCCESS && refuse_unnamed_sentinel(n) != KV_SUCCESS) {
        unregister();
        return KV_INVALID_PARAMETER;
    }
    if (status == KV_SUCCESS && before != NodeMode::unknown && n.connection.mode() != before) {
        unregister();  // a standalone server cannot stand in for a cluster
        note(KV_INVALID_PARAMETER, n, describe(seed) + (before == NodeMode::cluster
                                                            ? " is a standalone server, the others a cluster"
                                                            : " is a cluster node, the others standalone"));
        return KV_INVALID_PARAMETER;
    }
    if (status != KV_SUCCESS) return status;
    // This seed answered just now: it is asked first, so that a silent seed
    // given before it costs nothing.
    bool map_loaded = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        map_loaded = map_loaded_;
    }
    if (mode_.load() == NodeMode::cluster && !map_loaded) return refresh(deadline, nullptr, &n);
    return KV_SUCCESS;
}

int32_t Router::discover(Deadline deadline) {
    std::vector<Node*> seeds;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        seeds = seeds_;
    }
    int32_t status = KV_NO_SERVER;
    for (Node* seed : seeds) {
        status = connect(*seed, deadline, settings_.connect_attempts);
        if (mode_.load() != NodeMode::unknown) return KV_SUCCESS;
        if (status == KV_SUCCESS) status = refuse_unnamed_sentinel(*seed);
    }
    return status;
}

}  // namespace kelvane
