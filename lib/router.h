// router.h -- the path of one command to the node that serves its key.
//
// The router knows the seeds given to kv_server_add and, for a cluster, the
// slot map; it keeps one lazily made connection per node. It follows MOVED
// and ASK redirections, waits out TRYAGAIN, CLUSTERDOWN and LOADING with a
// short back-off, and routes again when a node refuses the connection or
// turns out to be a replica, all within the call's deadline. A command that
// may have run is never sent a second time. With a standalone server all of
// this reduces to the one connection to that server. Behind Redis Sentinel
// it is the connection to the master the Sentinels name, found and followed
// through failovers by router_sentinel.cpp.
//
// Any number of threads route through one router at once. What they share
// (the seeds, the nodes, the mode, the slot map, the Sentinels and the master
// they named) is kept under one lock, never held across a network wait: a
// node's connection is opened by one thread at a time while the others wait
// for it within their own deadlines, and a refresh of the slot map, or a
// search for the master, is made by one thread while the others go on with
// what is known, or, knowing nothing, wait for it within their own deadlines.
// Each call's own state (its failure, the connection it pinned) is the
// calling thread's (call_state.h).
#ifndef KELVANE_ROUTER_H
#define KELVANE_ROUTER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "call_state.h"
#include "deadline.h"
#include "endpoint.h"
#include "node_connection.h"
#include "reply_sink.h"
#include "request.h"
#include "server_error.h"
#include "settings.h"
#include "slot_map.h"

namespace kelvane {

// Returned by Router::run() for a request that cannot follow ASK
// (Request::cannot_follow_ask): its key has moved on in a slot migration,
// and the caller sends a form that can.
inline constexpr int32_t kKeyMoving = -3;
// Returned by Router::run_pinned() when the connection of the last run is
// gone, or the server answered that its key must be looked for elsewhere
// now: what the last run left on the connection is lost, and the caller
// starts over.
inline constexpr int32_t kPinLost = -4;

struct RouterSettings {
    std::chrono::milliseconds connect_timeout;
    std::chrono::milliseconds command_timeout;
    int connect_attempts;
};

class Router {
public:
    explicit Router(const RouterSettings& settings) : settings_(settings) {}

    // Adds a seed and connects to it now. KV_SUCCESS; KV_ALREADY_EXISTS for
    // a seed given before; KV_INVALID_PARAMETER for a standalone server next
    // to a cluster; KV_CLUSTER_DOWN for a cluster node that knows no slot
    // served (one that belongs to no cluster) while no seed has given a slot
    // map; or the status that says why it cannot be reached. The seed is
    // registered before anything is tried, and stays whatever the attempt
    // meets (running out of memory included): later calls try it again.
    int32_t add_seed(const Endpoint& seed, std::shared_ptr<const NodeSettings> settings,
                     Deadline deadline);

    // Adds a seed that is a Sentinel watching the master named in settings,
    // and, while no master is known, finds it now (asking this seed first).
    // KV_SUCCESS; KV_ALREADY_EXISTS for a seed given before;
    // KV_INVALID_PARAMETER next to seeds that are data nodes, for another
    // master's name than the seeds before it, or for a seed that greets as a
    // data node (it is not registered); KV_NO_MASTER when no Sentinel names
    // a master that answers as one; or why the Sentinel or the master cannot
    // be reached. Registered before anything is tried, as add_seed.
    int32_t add_sentinel(const Endpoint& seed, const SeedSettings& settings, Deadline deadline);

    // Why the router last failed this thread's call, in words, and with
    // which status; the client reports it when its call ends with that
    // status.
    static void note_failure(int32_t status, std::string text) {
        this_call().failure = Failure{status, std::move(text)};
    }

    // Sends request to the node that serves slot and reads its reply into
    // sink. KV_SUCCESS once a reply that is not an error arrived; otherwise
    // the status that ends the call. uses_functions: the node must hold the
    // function library first.
    // hold: a reply that is not an error leaves the connection to this call
    // alone (NodeConnection::exchange) until release_pin().
    int32_t run(Request& request, uint16_t slot, ReplySink& sink, bool uses_functions,
                Deadline deadline, bool hold = false);

    // Sends request over the very connection the last exchange of run()
    // used, without routing, reconnecting or retrying: for a request that
    // relies on what that run left on the connection (a WATCH). KV_SUCCESS
    // once a reply that is not an error arrived; kPinLost; or the status an
    // error ends the call with.
    int32_t run_pinned(Request& request, ReplySink& sink, Deadline deadline);
    // Lets other calls use the connection a held run() kept, if any.
    void release_pin();

private:
    struct Node {
        Endpoint endpoint;
        std::shared_ptr<const NodeSettings> settings;  // under mutex_
        NodeConnection connection;
        // One thread opens the connection at a time; the others wait, each
        // within its deadline, and take its result when it failed just now.
        // Under mutex_:
        bool opening = false;
        uint64_t opened = 0;  // openings ended
        int32_t last_open = 0;
        std::string last_open_failure;
        // The function library has been found there; one thread checks at a
        // time (checking_library, under mutex_).
        std::atomic<bool> library_checked{false};
        bool checking_library = false;
    };
    // Waits, within the deadline, until no other thread holds n's turn
    // (&Node::opening, &Node::checking_library), and takes it: false when
    // the deadline came first. end_turn() gives it back.
    bool take_turn(Node& n, bool Node::*turn, Deadline deadline);
    void end_turn(Node& n, bool Node::*turn);

    // The node at endpoint, made if new; with mutex_ held, and without.
    Node& node_locked(const Endpoint& endpoint);
    Node& node(const Endpoint& endpoint) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return node_locked(endpoint);
    }
    std::shared_ptr<const NodeSettings> settings_of(const Node& n) const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return n.settings;
    }
    // The function library on n: KV_SUCCESS once it is known to be there.
    int32_t check_library(Node& n, Deadline deadline);
    // KV_INVALID_PARAMETER, noted, for a seed given as a data node that
    // greeted as a Sentinel; KV_SUCCESS for any other.
    int32_t refuse_unnamed_sentinel(const Node& seed);
    // An open, live connection to n, connecting as needed.
    int32_t connect(Node& n, Deadline deadline, int attempts);
    // connect() for a seed just registered, which stays registered whatever
    // the attempt meets, running out of memory included.
    int32_t connect_seed(Node& seed, Deadline deadline);
    // Finds out what the seeds are (standalone or cluster) when no seed has
    // answered yet.
    int32_t discover(Deadline deadline);
    // The node for slot; nullptr and *status when there is none just now.
    Node* route(uint16_t slot, Deadline deadline, int32_t* status);
    // Asks the known nodes for the slot map (first first, avoid last) and
    // takes the best answer: the most slots served, on a tie the newest
    // (cluster_view.h). An answer that serves every slot ends the search; one
    // that serves none never replaces the map.
    int32_t refresh(Deadline deadline, const Node* avoid, const Node* first = nullptr);
    void learn_mode(Node& n);
    // Records why talking to n failed (never with its password in it).
    void note(int32_t status, const Node& n, std::string text) const;
    // After the master of a migrating slot refused both server keys of a
    // kelvane key (TRYAGAIN): whether it holds the main key and neither it
    // nor the importing node the values hash.
    bool values_hash_nowhere(Node& source, const Request& request, Deadline deadline);

    struct Call;
    // After an error reply: go round again, or end the call with status.
    struct Step {
        bool repeat;
        int32_t status;
        static Step again() { return Step{true, 0}; }
        static Step end(int32_t status) { return Step{false, status}; }
    };
    Step on_error_reply(const ServerError& error, Node& n, bool uses_functions, Call& call);
    // Whether the store's master may be another node soon (a cluster's slot
    // map, the master the Sentinels name), so that a call that found none,
    // or one that is no longer master, waits and routes again.
    bool follows_failovers() const {
        const NodeMode mode = mode_.load(std::memory_order_acquire);
        return mode == NodeMode::cluster || mode == NodeMode::sentinel;
    }
    // The node a call went to is not the master any more (READONLY, or it
    // cannot be reached): look again. The status a call that runs out of
    // time then answers.
    int32_t master_moved();
    void refresh_soon() {
        const std::lock_guard<std::mutex> lock(mutex_);
        refresh_due_ = true;
    }
    // ASKING, then command: for the node an ASK named.
    static std::string asking_then(std::string_view command);
    Deadline command_deadline(Deadline deadline) const {
        return deadline.within(settings_.command_timeout);
    }

    // ---- A store behind Sentinels (router_sentinel.cpp) ----
    struct Sentinels {
        std::string master_name;
        // Every Sentinel known, the seeds and those they named; the one that
        // last named a master that answered as one first.
        std::vector<std::unique_ptr<Node>> known;
        std::vector<Endpoint> seeds;
        // For the masters, and for the Sentinels the seeds name: the settings
        // of the first seed that has credentials of that kind, else of the
        // first seed.
        std::shared_ptr<const NodeSettings> data_settings, named_settings;
        Node* master = nullptr;  // answered ROLE as master when last connected
        // Subscribed to the failover announcements of one Sentinel (watched);
        // any bytes on it put the master in doubt.
        NodeConnection watch;
        Endpoint watched;
        Clock::time_point last_asked{};
    };
    // route() behind Sentinels: the master, connected and confirmed by ROLE,
    // asking the Sentinels again when it is in doubt; nullptr and *status
    // when there is none just now. One thread asks at a time (searching_).
    Node* sentinel_master(Deadline deadline, int32_t* status);
    // Waits, within the deadline, until no other thread searches for the
    // master, and then searches itself: KV_SUCCESS with the search to make;
    // KV_NO_MASTER when the deadline came first.
    int32_t start_search(std::unique_lock<std::mutex>& lock, Deadline deadline);
    void end_search();
    // Asks the Sentinels (first, if given, first) for the master until one
    // names a node that answers ROLE as master; each Sentinel gets a share of
    // the time left. KV_SUCCESS with sentinels_.master set; KV_NO_MASTER
    // when a Sentinel answered but none named a master that answered as one;
    // a named master's own refusal (KV_AUTH_FAILED, KV_TLS_FAILED, ...);
    // else why no Sentinel could be reached.
    int32_t find_master(Deadline deadline, Node* first);
    // Connects to n as needed and asks its role: KV_SUCCESS for a master,
    // else the status with *why.
    int32_t confirm_master(Node& n, Deadline deadline, std::string* why);
    // Whether the watched Sentinel announced a failover (or went away) since
    // the master was found, with *announcer that Sentinel, or, with no
    // announcement to watch, it is time to ask again.
    bool master_in_doubt(Node** announcer);
    // Subscribes to the failovers the Sentinel announces, unless the watch
    // is on it already.
    void watch_sentinel(Node& sentinel, Deadline deadline);
    void learn_sentinels(const std::vector<Endpoint>& named, std::vector<Node*>& order);
    void drop_sentinel_seed(const Endpoint& seed);
    Node& sentinel_node(const Endpoint& endpoint, bool* made);

    RouterSettings settings_;
    mutable std::mutex mutex_;  // over everything below but mode_ (atomic)
    std::condition_variable changed_;  // a refresh or a search for the master ended
    std::vector<std::unique_ptr<Node>> nodes_;  // never shrinks: a Node lives as long as the router
    std::vector<Node*> seeds_;
    std::atomic<NodeMode> mode_{NodeMode::unknown};
    Node* standalone_ = nullptr;  // the server, in standalone mode
    SlotMap map_;
    bool map_loaded_ = false;
    bool refresh_due_ = false;
    bool refreshing_ = false;  // a thread asks the nodes for the map
    Clock::time_point last_refresh_{};
    Sentinels sentinels_;
    bool searching_ = false;  // a thread asks the Sentinels for the master
    std::vector<std::unique_ptr<Node>> retired_;  // Sentinel seeds refused: kept while others may hold them
};

}  // namespace kelvane

#endif  // KELVANE_ROUTER_H
