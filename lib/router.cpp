// router.cpp -- routing, redirections, retries and slot-map refreshes.
#include "router.h"

#include <algorithm>
#include <thread>

#include "function_library.h"
#include "kelvane.h"
#include "server_error.h"

namespace kelvane {
namespace {

using std::chrono::milliseconds;

// A MOVED storm (a resharding) patches the map slot by slot; the whole map
// is asked for again at most this often.
constexpr milliseconds kRefreshSpacing{100};
// Redirections one call follows before it starts to back off: a cluster in
// the middle of a change may bounce a command between nodes for a while.
constexpr int kFreeRedirections = 8;

// Waits before a retry: 5 ms, doubling up to 200 ms, never past the
// deadline. False once the deadline has passed.
class Backoff {
public:
    bool wait(Deadline deadline) {
        if (deadline.passed()) return false;
        std::this_thread::sleep_for(std::min<Clock::duration>(next_, deadline.remaining()));
        next_ = std::min(next_ * 2, milliseconds(200));
        return !deadline.passed();
    }

private:
    milliseconds next_{5};
};

bool is_transport(int32_t status) {
    return status == KV_CONNECT_FAILED || status == KV_TIMEOUT || status == KV_CONNECTION_LOST;
}

std::string asking_then(std::string_view request) {
    std::string bytes = "*1\r\n$6\r\nASKING\r\n";
    bytes.append(request);
    return bytes;
}

}  // namespace

Router::Node& Router::node(const Endpoint& endpoint) {
    for (auto& n : nodes_) {
        if (n->endpoint == endpoint) return *n;
    }
    auto fresh = std::make_unique<Node>();
    fresh->endpoint = endpoint;
    // Nodes the cluster names use the credentials of the first seed that
    // has some: the nodes of one cluster share their users.
    for (const Node* seed : seeds_) {
        if (seed->credentials) {
            fresh->credentials = seed->credentials;
            break;
        }
    }
    nodes_.push_back(std::move(fresh));
    return *nodes_.back();
}

void Router::learn_mode(Node& n) {
    if (mode_ != NodeMode::unknown || n.connection.mode() == NodeMode::unknown) return;
    mode_ = n.connection.mode();
    if (mode_ == NodeMode::standalone) standalone_ = &n;
    if (mode_ == NodeMode::cluster) refresh_due_ = true;
}

int32_t Router::connect(Node& n, Deadline deadline, int attempts) {
    if (n.connection.is_open()) {
        if (n.connection.usable()) return KV_SUCCESS;
        n.connection.close();  // the server closed it: a restart, a kill, a timeout
    }
    int32_t status = KV_CONNECT_FAILED;
    for (int attempt = 0; attempt < attempts && !deadline.passed(); ++attempt) {
        status = n.connection.open(n.endpoint, n.credentials,
                                   deadline.within(settings_.connect_timeout),
                                   command_deadline(deadline));
        if (status == KV_SUCCESS) {
            learn_mode(n);
            return status;
        }
        // Only a failure to reach the server is worth another attempt.
        if (status != KV_CONNECT_FAILED) break;
    }
    return status;
}

int32_t Router::add_seed(const Endpoint& seed, const std::optional<Credentials>& credentials,
                         Deadline deadline) {
    for (const Node* s : seeds_) {
        if (s->endpoint == seed) return KV_ALREADY_EXISTS;
    }
    Node& n = node(seed);
    if (credentials) n.credentials = credentials;
    const NodeMode before = mode_;
    const int32_t status = connect(n, deadline, settings_.connect_attempts);
    if (status == KV_SUCCESS && before != NodeMode::unknown && n.connection.mode() != before) {
        return KV_INVALID_PARAMETER;  // a standalone server cannot stand in for a cluster
    }
    seeds_.push_back(&n);
    if (status != KV_SUCCESS) return status;
    if (mode_ == NodeMode::cluster && !map_loaded_) return refresh(deadline, nullptr);
    return KV_SUCCESS;
}

int32_t Router::discover(Deadline deadline) {
    int32_t status = KV_NO_SERVER;
    for (Node* seed : seeds_) {
        status = connect(*seed, deadline, settings_.connect_attempts);
        if (mode_ != NodeMode::unknown) return KV_SUCCESS;
    }
    return status;
}

Router::Node* Router::route(uint16_t slot, Deadline deadline, int32_t* status) {
    if (mode_ == NodeMode::unknown) {
        *status = discover(deadline);
        if (*status != KV_SUCCESS) return nullptr;
    }
    if (mode_ == NodeMode::standalone) return standalone_;
    if (!map_loaded_ || refresh_due_) {
        const int32_t refreshed = refresh(deadline, nullptr);
        if (!map_loaded_) {
            *status = refreshed;
            return nullptr;
        }
    }
    const Endpoint* master = map_.master_of(slot);
    if (master == nullptr) {
        refresh_due_ = true;
        *status = KV_CLUSTER_DOWN;
        return nullptr;
    }
    return &node(*master);
}

int32_t Router::refresh(Deadline deadline, const Node* avoid) {
    if (map_loaded_ && Clock::now() - last_refresh_ < kRefreshSpacing) return KV_SUCCESS;
    std::vector<Endpoint> candidates = map_.nodes();
    for (const Node* seed : seeds_) {
        if (std::find(candidates.begin(), candidates.end(), seed->endpoint) == candidates.end()) {
            candidates.push_back(seed->endpoint);
        }
    }
    if (avoid != nullptr) {
        // The node that just failed is asked last.
        std::stable_partition(candidates.begin(), candidates.end(),
                              [&](const Endpoint& e) { return e != avoid->endpoint; });
    }
    Request slots;
    slots.start().arg("CLUSTER").arg("SLOTS");
    int32_t status = KV_CONNECT_FAILED;
    for (const Endpoint& endpoint : candidates) {
        if (deadline.passed()) break;
        Node& n = node(endpoint);
        status = connect(n, deadline, 1);
        if (status != KV_SUCCESS) continue;
        ValueReply reply;
        const Exchange done = n.connection.exchange(slots.bytes(), {&reply}, command_deadline(deadline));
        if (done.status != KV_SUCCESS) {
            status = done.status;
        } else if (reply.is_error()) {
            status = status_of(classify_error(reply.error()).kind);
        } else if (!map_.load(reply.value(), n.endpoint)) {
            status = KV_SERVER_ERROR;
        } else {
            map_loaded_ = true;
            refresh_due_ = false;
            last_refresh_ = Clock::now();
            return KV_SUCCESS;
        }
    }
    return status;
}

int32_t Router::run(Request& request, uint16_t slot, ReplySink& sink, bool uses_functions,
                    Deadline deadline) {
    const std::string_view bytes = request.bytes();
    std::optional<Endpoint> ask_target;
    Backoff backoff;
    bool library_reloaded = false;
    int redirections = 0;
    std::size_t standalone_failures = 0;
    int32_t last = KV_CONNECT_FAILED;  // why the call ends if its time runs out
    bool last_is_known = false;         // set by a failure, not by a mere redirection
    for (;;) {
        if (deadline.passed()) return last;
        int32_t status = KV_SUCCESS;
        Node* n = ask_target ? &node(*ask_target) : route(slot, deadline, &status);
        if (n == nullptr) {
            if (mode_ != NodeMode::cluster) return status;
            last = status;
            last_is_known = true;
            if (!backoff.wait(deadline)) return last;
            continue;
        }

        status = connect(*n, deadline, settings_.connect_attempts);
        if (status != KV_SUCCESS) {
            last = status;
            last_is_known = true;
            if (mode_ != NodeMode::cluster) {
                // Another seed of a standalone store may answer instead.
                if (++standalone_failures >= seeds_.size()) return status;
                standalone_ = seeds_[(std::find(seeds_.begin(), seeds_.end(), n) - seeds_.begin() + 1) %
                                     seeds_.size()];
                continue;
            }
            // The node is gone, perhaps failing over: ask the others where
            // the slot lives now.
            ask_target.reset();
            refresh_due_ = true;
            refresh(deadline, n);
            if (!backoff.wait(deadline)) return last;
            continue;
        }

        if (uses_functions && !n->library_checked) {
            status = ensure_function_library(n->connection, command_deadline(deadline));
            if (status == KV_SUCCESS) {
                n->library_checked = true;
            } else if (status == kNodeIsBusy) {
                last = KV_TIMEOUT;
                last_is_known = true;
                if (!backoff.wait(deadline)) return last;
                continue;
            } else if (mode_ == NodeMode::cluster &&
                       (status == kNodeIsReplica || is_transport(status))) {
                last = status == kNodeIsReplica ? KV_CLUSTER_DOWN : status;
                last_is_known = true;
                ask_target.reset();
                refresh_due_ = true;
                if (!backoff.wait(deadline)) return last;
                continue;
            } else {
                return status == kNodeIsReplica ? KV_SERVER_ERROR : status;
            }
        }

        Exchange done{};
        if (ask_target) {
            ValueReply asking_reply;
            done = n->connection.exchange(asking_then(bytes), {&asking_reply, &sink},
                                          command_deadline(deadline));
            ask_target.reset();
        } else {
            done = n->connection.exchange(bytes, {&sink}, command_deadline(deadline));
        }
        if (done.status != KV_SUCCESS) {
            // Once sent, the command may have run: it is never sent again.
            if (done.sent) {
                if (mode_ == NodeMode::cluster) refresh_due_ = true;
                return done.status;
            }
            last = done.status;
            last_is_known = true;
            continue;
        }
        if (!sink.is_error()) return KV_SUCCESS;

        const ServerError error = classify_error(sink.error());
        switch (error.kind) {
            case ErrorKind::moved:
            case ErrorKind::ask: {
                if (mode_ != NodeMode::cluster) return KV_SERVER_ERROR;
                Endpoint target = *error.target;
                if (target.host.empty()) target.host = n->endpoint.host;
                // A redirection is not a failure: a call that runs out of
                // time among them answers what kept it retrying, if anything.
                if (!last_is_known) last = KV_CLUSTER_DOWN;
                if (++redirections > kFreeRedirections && !backoff.wait(deadline)) return last;
                if (error.kind == ErrorKind::moved) {
                    map_.set_master(static_cast<uint16_t>(error.slot), target);
                    refresh_due_ = true;
                } else {
                    ask_target = target;  // this command only; the map stays
                }
                continue;
            }
            case ErrorKind::read_only:
                if (mode_ != NodeMode::cluster) return KV_SERVER_ERROR;
                refresh_due_ = true;
                [[fallthrough]];
            case ErrorKind::try_again:
            case ErrorKind::cluster_down:
            case ErrorKind::busy:
                last = error.kind == ErrorKind::read_only ? KV_CLUSTER_DOWN : status_of(error.kind);
                last_is_known = true;
                if (error.kind == ErrorKind::cluster_down) refresh_due_ = true;
                if (!backoff.wait(deadline)) return last;
                continue;
            case ErrorKind::function_missing:
                // Flushed since we looked; nothing ran, so load and go again.
                if (!uses_functions || library_reloaded) return KV_SERVER_ERROR;
                library_reloaded = true;
                n->library_checked = false;
                continue;
            default:
                return status_of(error.kind);
        }
    }
}

}  // namespace kelvane
