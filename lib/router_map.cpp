// router_map.cpp -- what the router learns of a cluster: the slot map,
// asked of the nodes it knows, and where a kelvane key's two server keys are
// while their slot migrates.
#include "router.h"

#include <algorithm>
#include <string>

#include "cluster_view.h"
#include "kelvane.h"
#include "server_error.h"
#include "status_text.h"

namespace kelvane {
namespace {

// A MOVED storm (a resharding) patches the map slot by slot; the whole map
// is asked for again at most this often.
constexpr std::chrono::milliseconds kRefreshSpacing{100};

}  // namespace

std::string Router::asking_then(std::string_view command) {
    std::string bytes = "*1\r\n$6\r\nASKING\r\n";
    bytes.append(command);
    return bytes;
}

int32_t Router::refresh(Deadline deadline, const Node* avoid, const Node* first) {
    std::vector<Node*> candidates;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        // One thread asks at a time. The others go on with the map in hand
        // (a redirection puts them right), or, with none yet, wait for it
        // within their deadlines.
        while (refreshing_) {
            if (map_loaded_) return KV_SUCCESS;
            if (changed_.wait_until(lock, deadline.at()) == std::cv_status::timeout && refreshing_) {
                return KV_CLUSTER_DOWN;
            }
        }
        if (map_loaded_ && Clock::now() - last_refresh_ < kRefreshSpacing) return KV_SUCCESS;
        refreshing_ = true;
        if (first != nullptr) candidates.push_back(&node_locked(first->endpoint));
        for (const Endpoint& e : map_.nodes()) candidates.push_back(&node_locked(e));
        for (Node* seed : seeds_) candidates.push_back(seed);
    }
    for (auto at = candidates.begin(); at != candidates.end(); ++at) {
        candidates.erase(std::remove(at + 1, candidates.end(), *at), candidates.end());
    }
    if (avoid != nullptr) {
        // The node that just failed is asked last.
        std::stable_partition(candidates.begin(), candidates.end(), [&](const Node* n) { return n != avoid; });
    }
    std::optional<ClusterView> best;
    int32_t status = KV_CONNECT_FAILED;  // why there is no answer, while there is none
    try {
        for (Node* candidate : candidates) {
            if (deadline.passed()) break;
            Node& n = *candidate;
            ClusterView view;
            int32_t asked = connect(n, deadline, 1);
            const bool connected = asked == KV_SUCCESS;
            if (connected) asked = ask_cluster_view(n.connection, n.endpoint, command_deadline(deadline), &view);
            // A node that serves no slot (one that belongs to no cluster, or
            // has lost its configuration) has nothing to tell.
            if (asked == KV_SUCCESS && view.map.covered() == 0) asked = KV_CLUSTER_DOWN;
            if (asked != KV_SUCCESS) {
                // A failed connection has said why already.
                if (connected) {
                    note(asked, n, describe(n.endpoint) + " gave no slot map (" + status_name(asked) + ")");
                }
                status = asked;
                continue;
            }
            if (!best || better_view(view, *best)) best = std::move(view);
            if (best->map.covered() == kSlotCount) break;
        }
    } catch (...) {
        const std::lock_guard<std::mutex> lock(mutex_);
        refreshing_ = false;
        changed_.notify_all();
        throw;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    refreshing_ = false;
    changed_.notify_all();
    if (!best) return status;  // the map in hand, if any, stays
    map_ = std::move(best->map);
    map_loaded_ = true;
    refresh_due_ = false;
    last_refresh_ = Clock::now();
    return KV_SUCCESS;
}

bool Router::values_hash_nowhere(Node& source, const Request& request, Deadline deadline) {
    Request probe;
    const std::string exists_main(probe.start().arg("EXISTS").arg(request.main_key()).bytes());
    const std::string exists_values(probe.start().arg("EXISTS").arg(request.values_key()).bytes());
    ValueReply main_here, values_here;
    if (source.connection.exchange(exists_main + exists_values, {&main_here, &values_here},
                                   command_deadline(deadline))
            .status != KV_SUCCESS) {
        return false;
    }
    // A migrating node answers ASK, naming the importing node, for a key
    // it does not hold.
    const auto holds = [](const ValueReply& r) {
        return !r.is_error() && r.value().type == Value::Type::integer && r.value().integer == 1;
    };
    if (!holds(main_here) || !values_here.is_error()) return false;
    const ServerError elsewhere = classify_error(values_here.error());
    if (elsewhere.kind != ErrorKind::ask) return false;
    Endpoint target = *elsewhere.target;
    if (target.host.empty()) target.host = source.endpoint.host;
    Node& importing = node(target);  // (takes the lock)
    if (connect(importing, deadline, 1) != KV_SUCCESS) return false;
    ValueReply asking, values_there;
    const Exchange there = importing.connection.exchange(
        asking_then(exists_values), {&asking, &values_there}, command_deadline(deadline));
    return there.status == KV_SUCCESS && !values_there.is_error() &&
           values_there.value().type == Value::Type::integer && values_there.value().integer == 0;
}

}  // namespace kelvane
