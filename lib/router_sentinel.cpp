// router_sentinel.cpp -- a store behind Redis Sentinel: the Sentinels the
// router knows (the seeds, and those they name), the master they name,
// confirmed by ROLE before any call goes there, and following that master
// through failovers.
#include <algorithm>
#include <string>

#include "kelvane.h"
#include "router.h"
#include "secret.h"
#include "sentinel_view.h"
#include "status_text.h"

namespace kelvane {
namespace {

// With no failover announcement to watch (no Sentinel took the
// subscription), the Sentinels are asked again at most this often while
// calls go on.
constexpr std::chrono::seconds kAskAgainEvery{1};

// At most this many Sentinels are remembered: what a misbehaving Sentinel
// names cannot make the client keep more.
constexpr std::size_t kMostSentinels = 64;

// A named master that refuses our settings: asking other Sentinels will not
// mend it, and its status says more than KV_NO_MASTER.
bool refuses_settings(int32_t status) {
    return status == KV_AUTH_FAILED || status == KV_TLS_FAILED || status == KV_CERT_REJECTED ||
           status == KV_NOT_PERMITTED;
}

std::string quoted(const std::string& name) { return "'" + name + "'"; }

const char* name_of(int32_t status) {
    const char* name = status_name(status);
    return name != nullptr ? name : "an unknown status";
}

}  // namespace

Router::Node& Router::sentinel_node(const Endpoint& endpoint, bool* made) {
    Sentinels& s = sentinels_;
    for (auto& n : s.known) {
        if (n->endpoint == endpoint) {
            *made = false;
            return *n;
        }
    }
    auto fresh = std::make_unique<Node>();
    fresh->endpoint = endpoint;
    fresh->settings = s.named_settings;
    s.known.reserve(s.known.size() + 1);
    s.known.push_back(std::move(fresh));
    *made = true;
    return *s.known.back();
}

int32_t Router::add_sentinel(const Endpoint& seed, const SeedSettings& settings, Deadline deadline) {
    Sentinels& s = sentinels_;
    Node* registered = nullptr;
    bool made = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!seeds_.empty()) {
            note_failure(KV_INVALID_PARAMETER, describe(seed) + " is a Sentinel, the seeds before it data nodes");
            return KV_INVALID_PARAMETER;
        }
        if (!s.seeds.empty() && settings.sentinel_master != s.master_name) {
            note_failure(KV_INVALID_PARAMETER, describe(seed) + " is given for the master " +
                                                   quoted(settings.sentinel_master) + ", the seeds before it for " +
                                                   quoted(s.master_name) + ": a client reaches one store");
            return KV_INVALID_PARAMETER;
        }
        if (std::find(s.seeds.begin(), s.seeds.end(), seed) != s.seeds.end()) {
            note_failure(KV_ALREADY_EXISTS, describe(seed) + " is a seed already");
            return KV_ALREADY_EXISTS;
        }
        // Everything that may run out of memory comes before the seed is
        // registered, and registering it cannot fail: once in, it stays.
        s.seeds.reserve(s.seeds.size() + 1);
        retired_.reserve(retired_.size() + 1);
        Endpoint endpoint = seed;
        std::string name = s.seeds.empty() ? settings.sentinel_master : s.master_name;
        Node& n = sentinel_node(seed, &made);
        n.settings = settings.sentinel;
        s.master_name = std::move(name);
        mode_.store(NodeMode::sentinel, std::memory_order_release);
        if (!s.data_settings || (!s.data_settings->credentials && settings.data->credentials)) {
            s.data_settings = settings.data;
        }
        if (!s.named_settings || (!s.named_settings->credentials && settings.sentinel->credentials)) {
            s.named_settings = settings.sentinel;
        }
        s.seeds.push_back(std::move(endpoint));
        registered = &n;
    }
    Node& n = *registered;
    const int32_t status = connect_seed(n, deadline);
    const bool data_node = status == KV_SUCCESS && n.connection.mode() != NodeMode::sentinel;
    if (data_node) {
        note(KV_INVALID_PARAMETER, n,
             describe(seed) + " is not a Sentinel: it greets as a data node (give it without a master's name)");
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (data_node) {
        s.seeds.erase(std::find(s.seeds.begin(), s.seeds.end(), seed));
        if (made) {
            // Out of the Sentinels asked; kept alive, since another call may
            // be asking it just now.
            const auto at = std::find_if(s.known.begin(), s.known.end(),
                                         [&](const std::unique_ptr<Node>& k) { return k.get() == &n; });
            retired_.push_back(std::move(*at));
            s.known.erase(at);
        }
        if (s.seeds.empty()) {  // as if it had never been given
            s.master_name.clear();
            s.data_settings.reset();
            s.named_settings.reset();
            mode_.store(NodeMode::unknown, std::memory_order_release);
        }
        return KV_INVALID_PARAMETER;
    }
    if (status != KV_SUCCESS || s.master != nullptr) return status;
    // This seed answered just now: it is asked first, so that a silent
    // Sentinel given before it costs nothing.
    const int32_t started = start_search(lock, deadline);
    if (started != KV_SUCCESS) return started;
    lock.unlock();
    int32_t found = KV_NO_MASTER;
    try {
        found = find_master(deadline, &n);
    } catch (...) {
        end_search();
        throw;
    }
    end_search();
    return found;
}

int32_t Router::start_search(std::unique_lock<std::mutex>& lock, Deadline deadline) {
    while (searching_) {
        if (changed_.wait_until(lock, deadline.at()) == std::cv_status::timeout && searching_) {
            note_failure(KV_NO_MASTER, "no master named " + quoted(sentinels_.master_name) +
                                           ": another call was still asking the Sentinels at the deadline");
            return KV_NO_MASTER;
        }
    }
    searching_ = true;
    return KV_SUCCESS;
}

void Router::end_search() {
    const std::lock_guard<std::mutex> lock(mutex_);
    searching_ = false;
    changed_.notify_all();
}

Router::Node* Router::sentinel_master(Deadline deadline, int32_t* status) {
    Sentinels& s = sentinels_;
    std::unique_lock<std::mutex> lock(mutex_);
    Node* announcer = nullptr;
    Node* known = nullptr;
    // While another call asks the Sentinels, the master it will name is
    // waited for.
    while (searching_) {
        if (changed_.wait_until(lock, deadline.at()) == std::cv_status::timeout && searching_) {
            note_failure(KV_NO_MASTER, "no master named " + quoted(s.master_name) +
                                           ": another call was still asking the Sentinels at the deadline");
            *status = KV_NO_MASTER;
            return nullptr;
        }
    }
    known = s.master;
    if (known != nullptr && !master_in_doubt(&announcer) && known->connection.is_open() &&
        known->connection.usable()) {
        return known;
    }
    searching_ = true;
    lock.unlock();
    Node* found = nullptr;
    try {
        std::string why;
        // A new connection may meet a node that is a replica by now.
        if (known != nullptr && announcer == nullptr && confirm_master(*known, deadline, &why) == KV_SUCCESS) {
            found = known;
        } else {
            {
                const std::lock_guard<std::mutex> relock(mutex_);
                s.master = nullptr;
            }
            // The Sentinel that announced a failover knows of it: it is asked first.
            *status = find_master(deadline, announcer);
            const std::lock_guard<std::mutex> relock(mutex_);
            found = *status == KV_SUCCESS ? s.master : nullptr;
        }
    } catch (...) {
        end_search();
        throw;
    }
    end_search();
    return found;
}

bool Router::master_in_doubt(Node** announcer) {
    Sentinels& s = sentinels_;
    if (!s.watch.is_open()) return Clock::now() - s.last_asked >= kAskAgainEvery;
    if (s.watch.usable()) return false;
    s.watch.close();  // a failover announced, or the Sentinel gone: ask again
    bool made = false;
    *announcer = &sentinel_node(s.watched, &made);
    return true;
}

void Router::watch_sentinel(Node& sentinel, Deadline deadline) {
    Sentinels& s = sentinels_;
    s.watch.close();
    if (s.watch.open(sentinel.endpoint, *settings_of(sentinel), deadline.within(settings_.connect_timeout),
                     command_deadline(deadline)) != KV_SUCCESS ||
        watch_failovers(s.watch, command_deadline(deadline)) != KV_SUCCESS) {
        s.watch.close();
        return;
    }
    s.watched = sentinel.endpoint;
}

void Router::learn_sentinels(const std::vector<Endpoint>& named, std::vector<Node*>& order) {
    for (const Endpoint& e : named) {
        if (sentinels_.known.size() >= kMostSentinels) return;
        bool made = false;
        Node& n = sentinel_node(e, &made);
        if (made) order.push_back(&n);  // asked in this round too
    }
}

int32_t Router::confirm_master(Node& n, Deadline deadline, std::string* why) {
    int32_t status = connect(n, deadline, 1);
    if (status != KV_SUCCESS) {
        const bool unreachable = status == KV_CONNECT_FAILED || status == KV_TIMEOUT || status == KV_CONNECTION_LOST;
        *why = (unreachable ? "cannot be reached (" : "turned the client away (") + this_call().failure.text + ")";
        return status;
    }
    std::string role;
    status = ask_role(n.connection, command_deadline(deadline), &role);
    if (status != KV_SUCCESS) {
        *why = std::string("did not say its role (") + name_of(status) + ")";
        return status;
    }
    if (role != "master") {
        *why = "answers ROLE as " + role + ", not as master";
        return KV_NO_MASTER;
    }
    return KV_SUCCESS;
}

int32_t Router::find_master(Deadline deadline, Node* first) {
    Sentinels& s = sentinels_;
    std::vector<Node*> order;
    std::shared_ptr<const NodeSettings> data_settings;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (first != nullptr) order.push_back(first);
        for (auto& n : s.known) {
            if (n.get() != first) order.push_back(n.get());
        }
        data_settings = s.data_settings;
    }
    std::vector<Endpoint> failed_masters;  // named, and found no master, in this round
    std::string why;
    const auto say = [&why](const std::string& line) { why += (why.empty() ? "" : "; ") + line; };
    int32_t unreached = KV_NO_SERVER, refused = KV_SUCCESS;
    bool answered = false;
    for (std::size_t i = 0; i < order.size() && !deadline.passed(); ++i) {
        Node& sentinel = *order[i];
        // Each Sentinel still to ask gets an equal share of the time left:
        // a silent one cannot keep the others from being asked.
        const Deadline share = deadline.within(deadline.remaining() / static_cast<int>(order.size() - i));
        const std::string where = "Sentinel " + describe(sentinel.endpoint);
        int32_t asked = connect(sentinel, share, 1);
        if (asked != KV_SUCCESS) {
            unreached = asked;
            say("Sentinel " + this_call().failure.text);
            continue;
        }
        if (sentinel.connection.mode() != NodeMode::sentinel) {
            unreached = KV_SERVER_ERROR;
            say(describe(sentinel.endpoint) + " is not a Sentinel");
            continue;
        }
        // Subscribed before asking, so that a failover announced after the
        // answer is not missed.
        if (!s.watch.is_open()) watch_sentinel(sentinel, share);
        SentinelView view;
        asked = ask_sentinel(sentinel.connection, s.master_name, command_deadline(share), &view);
        if (asked != KV_SUCCESS) {
            unreached = asked;
            say(where + " did not answer (" + name_of(asked) + ")");
            continue;
        }
        answered = true;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            learn_sentinels(view.sentinels, order);
        }
        if (!view.knows_name) {
            if (s.watch.is_open() && s.watched == sentinel.endpoint) s.watch.close();  // it announces nothing of ours
            say(where + " watches no master named " + quoted(s.master_name));
            continue;
        }
        const std::string named = where + " names " + describe(view.master);
        if (std::find(failed_masters.begin(), failed_masters.end(), view.master) != failed_masters.end()) {
            say(named + " too");
            continue;
        }
        Node* named_node = nullptr;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            named_node = &node_locked(view.master);
            named_node->settings = data_settings;
        }
        Node& candidate = *named_node;
        std::string not_master;
        const int32_t confirmed = confirm_master(candidate, share, &not_master);
        if (confirmed == KV_SUCCESS) {
            const std::lock_guard<std::mutex> lock(mutex_);
            s.master = &candidate;
            s.last_asked = Clock::now();
            // The Sentinel that knew is asked first from now on.
            const auto at = std::find_if(s.known.begin(), s.known.end(),
                                         [&](const std::unique_ptr<Node>& k) { return k.get() == &sentinel; });
            std::rotate(s.known.begin(), at, at + 1);
            return KV_SUCCESS;
        }
        failed_masters.push_back(view.master);
        if (refuses_settings(confirmed)) refused = confirmed;
        say(named + ", which " + not_master);
    }
    std::unique_lock<std::mutex> lock(mutex_);
    s.last_asked = Clock::now();
    // No time was left to ask: what the last round found stands.
    if (why.empty()) return KV_NO_MASTER;
    const int32_t status = refused != KV_SUCCESS ? refused : answered ? KV_NO_MASTER : unreached;
    std::string text = "no master named " + quoted(s.master_name) + ": " + why;
    for (const auto& settings : {s.data_settings, s.named_settings}) {
        if (settings) redact(text, settings->password());
    }
    note_failure(status, std::move(text));
    return status;
}

}  // namespace kelvane
