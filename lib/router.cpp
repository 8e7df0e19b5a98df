// router.cpp -- seeds, routing, redirections and retries.
#include "router.h"

#include <algorithm>
#include <thread>

#include "function_library.h"
#include "kelvane.h"
#include "server_error.h"

namespace kelvane {
namespace {

using std::chrono::milliseconds;

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

}  // namespace

Router::Node* Router::route(uint16_t slot, Deadline deadline, int32_t* status) {
    NodeMode mode = mode_.load(std::memory_order_acquire);
    if (mode == NodeMode::sentinel) return sentinel_master(deadline, status);
    if (mode == NodeMode::unknown) {
        *status = discover(deadline);
        if (*status != KV_SUCCESS) return nullptr;
        mode = mode_.load(std::memory_order_acquire);
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (mode == NodeMode::standalone) return standalone_;
    if (!map_loaded_ || refresh_due_) {
        lock.unlock();
        const int32_t refreshed = refresh(deadline, nullptr);
        lock.lock();
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
    return &node_locked(*master);
}

// One call's way round the loop: the deadline, the back-off between
// retries, and why the call ends if its time runs out.
struct Router::Call {
    explicit Call(Deadline d) : deadline(d) {}

    // Records why the call goes round again and waits before it does.
    // False once there is no time left.
    bool retry(int32_t why) {
        failure = why;
        failed = true;
        return backoff.wait(deadline);
    }
    // A redirection is not a failure: a call that runs out of time among
    // them answers what kept it retrying, if anything did.
    bool redirected(int count) {
        if (!failed) failure = KV_CLUSTER_DOWN;
        return count <= kFreeRedirections || backoff.wait(deadline);
    }

    Deadline deadline;
    Backoff backoff;
    int32_t failure = KV_CONNECT_FAILED;
    bool failed = false;
    std::optional<Endpoint> ask_target;  // this command only, after an ASK
    const Node* main_key_only_on = nullptr;  // the next send, if to this node
    int redirections = 0;
    bool library_reloaded = false;
};

Router::Step Router::on_error_reply(const ServerError& error, Node& n, bool uses_functions,
                                   Call& call) {
    switch (error.kind) {
        case ErrorKind::moved:
        case ErrorKind::ask: {
            if (mode_.load() != NodeMode::cluster) return Step::end(KV_SERVER_ERROR);
            Endpoint target = *error.target;
            if (target.host.empty()) target.host = n.endpoint.host;
            if (!call.redirected(++call.redirections)) return Step::end(call.failure);
            if (error.kind == ErrorKind::moved) {
                const std::lock_guard<std::mutex> lock(mutex_);
                map_.set_master(static_cast<uint16_t>(error.slot), target);
                refresh_due_ = true;
            } else {
                call.ask_target = target;  // the map stays as it is
            }
            return Step::again();
        }
        case ErrorKind::read_only:
            // A former master, now a replica: the map, or the master the
            // Sentinels named, is stale. Nothing ran.
            if (!follows_failovers()) return Step::end(KV_SERVER_ERROR);
            return call.retry(master_moved()) ? Step::again() : Step::end(call.failure);
        case ErrorKind::cluster_down:
            refresh_soon();
            [[fallthrough]];
        case ErrorKind::try_again:
        case ErrorKind::busy:
            return call.retry(status_of(error.kind)) ? Step::again() : Step::end(call.failure);
        case ErrorKind::function_missing:
            // Flushed since we looked; nothing ran, so load and go again.
            if (!uses_functions || call.library_reloaded) return Step::end(KV_SERVER_ERROR);
            call.library_reloaded = true;
            n.library_checked = false;
            return Step::again();
        default:
            return Step::end(status_of(error.kind));
    }
}

int32_t Router::master_moved() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (mode_.load() == NodeMode::sentinel) {
        if (sentinels_.master != nullptr) sentinels_.master->connection.close();
        sentinels_.master = nullptr;
        return KV_NO_MASTER;
    }
    refresh_due_ = true;
    return KV_CLUSTER_DOWN;
}

int32_t Router::run(Request& request, uint16_t slot, ReplySink& sink, bool uses_functions,
                    Deadline deadline, bool hold) {
    const std::string_view bytes = request.bytes();
    Call call(deadline);
    std::size_t standalone_failures = 0;
    for (;;) {
        if (deadline.passed()) return call.failure;
        int32_t status = KV_SUCCESS;
        Node* n = call.ask_target ? &node(*call.ask_target) : route(slot, deadline, &status);
        if (n == nullptr) {
            // A cluster may serve the slot again soon, and the Sentinels name
            // a master once a failover is through.
            const bool may_come = mode_.load() == NodeMode::cluster || status == KV_NO_MASTER;
            if (!may_come || !call.retry(status)) return status;
            continue;
        }

        status = connect(*n, deadline, settings_.connect_attempts);
        if (status != KV_SUCCESS) {
            const NodeMode mode = mode_.load();
            if (mode == NodeMode::sentinel) {
                // Gone since the Sentinels named it: ask them again.
                master_moved();
                if (!call.retry(status)) return status;
                continue;
            }
            if (mode != NodeMode::cluster) {
                // Another seed of a standalone store may answer instead.
                const std::lock_guard<std::mutex> lock(mutex_);
                if (++standalone_failures >= seeds_.size()) return status;
                const auto at = std::find(seeds_.begin(), seeds_.end(), n) - seeds_.begin();
                // Another thread may have moved on already: then that stands.
                if (standalone_ == n) standalone_ = seeds_[static_cast<std::size_t>(at + 1) % seeds_.size()];
                continue;
            }
            // The node is gone, perhaps failing over: ask the others where
            // the slot lives now.
            call.ask_target.reset();
            refresh_soon();
            refresh(deadline, n);
            if (!call.retry(status)) return status;
            continue;
        }

        if (uses_functions) {
            status = check_library(*n, deadline);
            if (status == kNodeIsBusy) {
                if (!call.retry(KV_TIMEOUT)) return call.failure;
                continue;
            }
            if (follows_failovers() && (status == kNodeIsReplica || is_transport(status))) {
                call.ask_target.reset();
                const int32_t moved = master_moved();
                if (!call.retry(status == kNodeIsReplica ? moved : status)) return call.failure;
                continue;
            }
            if (status != KV_SUCCESS) return status == kNodeIsReplica ? KV_SERVER_ERROR : status;
        }

        const bool main_key_only = call.main_key_only_on == n;
        call.main_key_only_on = nullptr;
        const std::string_view command = main_key_only ? request.main_key_only() : bytes;
        const bool asking = call.ask_target.has_value();
        sink.expect_main_key_only(main_key_only);
        Exchange done{};
        if (asking) {
            // ASKING covers the one command after it: the two go as one
            // request, which no other call's can come between.
            ValueReply asking_reply;
            done = n->connection.exchange(asking_then(command), {&asking_reply, &sink},
                                          command_deadline(deadline));
            call.ask_target.reset();
        } else {
            done = n->connection.exchange(command, {&sink}, command_deadline(deadline), hold);
        }
        if (done.status != KV_SUCCESS) {
            note(done.status, *n, describe(n->endpoint) + ": " + done.why);
            // Once sent, the command may have run: it is never sent again.
            if (done.sent) {
                if (mode_.load() == NodeMode::cluster) refresh_soon();
                return done.status;
            }
            call.failure = done.status;  // the connection had gone stale: a new one
            call.failed = true;
            continue;
        }
        Pin& pin = this_call().pin;
        pin = Pin{this, &n->connection, n, n->connection.session(), hold && !asking};
        if (!sink.is_error()) return KV_SUCCESS;
        release_pin();  // an error reply leaves nothing on the connection to rely on
        const ServerError error = classify_error(sink.error());
        // A slot in migration, and the node would not take both server keys
        // of a kelvane key because it lacks one. Where the values hash exists
        // nowhere the key simply has none, and the node takes the command
        // with the main key alone, at once: on the migrating node where it
        // holds the main key, or on the importing node when an ASK brought
        // us here. The migrating node answers ASK only for keys it lacks (the
        // pair, or the main key after the values hash was seen missing), and
        // a key it lacks cannot come back to it while the slot migrates, so
        // whatever of the pair exists is on the importing node. A pair that
        // the migration has split waits below until it is whole again.
        if (error.kind == ErrorKind::try_again && !main_key_only && request.names_values_key() &&
            (asking || values_hash_nowhere(*n, request, deadline))) {
            call.main_key_only_on = n;
            if (asking) call.ask_target = n->endpoint;
            continue;
        }
        note(status_of(error.kind), *n, describe(n->endpoint) + " answered " + std::string(sink.error()));
        if (error.kind == ErrorKind::ask && !request.follows_ask()) return kKeyMoving;
        const Step next = on_error_reply(error, *n, uses_functions, call);
        if (!next.repeat) return next.status;
    }
}

int32_t Router::run_pinned(Request& request, ReplySink& sink, Deadline deadline) {
    const Pin& pin = this_call().pin;
    if (pin.router != this || pin.connection == nullptr) return kPinLost;
    Node* n = static_cast<Node*>(const_cast<void*>(pin.node));
    if (!n->connection.is_open() || n->connection.session() != pin.session) return kPinLost;
    sink.expect_main_key_only(false);
    const Exchange done = n->connection.exchange(request.bytes(), {&sink}, command_deadline(deadline));
    if (done.status != KV_SUCCESS) {
        note(done.status, *n, describe(n->endpoint) + ": " + done.why);
        if (mode_.load() == NodeMode::cluster) refresh_soon();
        // Not sent: whatever the first request left there is gone with the
        // connection, or cannot be relied on.
        return done.sent ? done.status : kPinLost;
    }
    if (!sink.is_error()) return KV_SUCCESS;
    const ServerError error = classify_error(sink.error());
    note(status_of(error.kind), *n, describe(n->endpoint) + " answered " + std::string(sink.error()));
    switch (error.kind) {
        case ErrorKind::moved:
        case ErrorKind::ask:
        case ErrorKind::try_again:
        case ErrorKind::cluster_down:
        case ErrorKind::read_only:
        case ErrorKind::busy:
            // Nothing ran; the next run() routes afresh (a READONLY: the
            // master has changed, and the map or the Sentinels say where).
            if (error.kind == ErrorKind::moved) refresh_soon();
            if (error.kind == ErrorKind::read_only && follows_failovers()) master_moved();
            return kPinLost;
        default:
            return status_of(error.kind);
    }
}

void Router::release_pin() {
    Pin& pin = this_call().pin;
    if (pin.router == this && pin.held && pin.connection != nullptr) pin.connection->release();
    pin.held = false;
}

}  // namespace kelvane
