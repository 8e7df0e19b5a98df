// cluster_workload.cpp -- the workload's rounds, its checks of what it reads, and the final comparison of the
// store with the record.
#include "cluster_workload.h"

#include <algorithm>
#include <sstream>

namespace kelvane_test {
namespace {

const char* kind_name(CallKind kind) {
    switch (kind) {
        case CallKind::kWrite: return "kv_zaddval";
        case CallKind::kIncrement: return "kv_zincrby";
        case CallKind::kScore: return "kv_zscore";
        default: return "kv_zrange";
    }
}

}  // namespace

std::string describe(const Call& call) {
    return std::string(kind_name(call.kind)) + " on key " + std::to_string(call.key) + " (" +
           Workload::member(call.item) + "): " + status_name(call.status) +
           (call.problem.empty() ? "" : ", " + call.problem);
}

bool never_ran(int32_t status) {
    return status == KV_NO_SERVER || status == KV_CONNECT_FAILED || status == KV_CLUSTER_DOWN ||
           status == KV_TRY_AGAIN;
}

bool acknowledged(int32_t status) { return status == KV_SUCCESS || status == KV_ALREADY_EXISTS; }

Workload::Workload(std::vector<std::string> keys, const std::vector<int>& seeds, bool range_reads)
    : keys_(std::move(keys)), range_reads_(range_reads), client_(std::make_unique<KvClient>(1, 2, 2)),
      acked_(keys_.size()) {
    for (int port : seeds) seed_statuses_.push_back(client_->add_seed(port));
}

Workload::~Workload() { stop(); }

void Workload::start() { thread_ = std::thread([this] { run(); }); }

void Workload::stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
}

std::string Workload::value(long long item, size_t key) const {
    return "value of " + member(item) + " in key " + std::to_string(key);
}

const Call* Workload::write_of(long long item) const {
    const auto it = write_index_.find(item);
    return it == write_index_.end() ? nullptr : &calls_[it->second];
}

void Workload::run() {
    for (long long item = 0; !stopping_; ++item) {
        const size_t key = static_cast<size_t>(item) % keys_.size();
        const std::string& name = keys_[key];
        Call call{CallKind::kWrite, key, item, -1, Clock::now(), {}, {}};
        call.status = client_->zaddval(name, static_cast<double>(item), member(item), value(item, key));
        call.end = Clock::now();
        if (acknowledged(call.status)) acked_[key].push_back(item);
        write_index_[item] = calls_.size();
        calls_.push_back(call);

        double ignored = 0;
        call = Call{CallKind::kIncrement, key, item, -1, Clock::now(), {}, {}};
        call.status = client_->zincrby(name, kCounter, 1, &ignored);
        call.end = Clock::now();
        calls_.push_back(call);

        if (!acked_[key].empty()) {
            const long long last = acked_[key].back();
            call = Call{CallKind::kScore, key, last, -1, Clock::now(), {}, {}};
            const KvClient::Scored got = client_->zscore(name, member(last));
            call.status = got.status;
            call.end = Clock::now();
            check_read(call, got, key, last);
            calls_.push_back(call);
        }
        if (range_reads_ && item % 8 == 7) {
            call = Call{CallKind::kRange, key, item, -1, Clock::now(), {}, {}};
            const KvClient::Members got = client_->zrange_all(name);
            call.status = got.status;
            call.end = Clock::now();
            check_range(call, got, key);
            calls_.push_back(call);
        }
        ++rounds_;
        // Leaves the two shared cores to the nodes and to the test's own thread most of the time.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void Workload::check_read(Call& call, const KvClient::Scored& got, size_t key, long long item) const {
    if (got.status != KV_SUCCESS) return;
    if (got.score != static_cast<double>(item) || got.value != value(item, key)) {
        call.problem = "kv_zscore of " + member(item) + " in key " + std::to_string(key) + " gave score " +
                       std::to_string(got.score) + " and value '" + got.value.value_or("(none)") + "'";
    }
}

void Workload::check_range(Call& call, const KvClient::Members& got, size_t key) const {
    if (got.status != KV_SUCCESS) return;
    for (long long item : acked_[key]) {
        const auto it = got.items.find(member(item));
        if (it == got.items.end() || it->second.first != static_cast<double>(item) ||
            it->second.second != value(item, key)) {
            call.problem = "kv_zrange of key " + std::to_string(key) + " lacks or changed the acknowledged " +
                           member(item);
            return;
        }
    }
}

std::string Workload::summary() const {
    std::map<CallKind, std::map<int32_t, size_t>> counts;
    for (const auto& c : calls_) ++counts[c.kind][c.status];
    std::ostringstream out;
    for (const auto& [kind, statuses] : counts) {
        out << kind_name(kind) << ":";
        for (const auto& [status, n] : statuses) out << " " << status_name(status) << " x" << n;
        out << "\n";
    }
    return out.str();
}

double Workload::longest_call_s() const {
    double longest = 0;
    for (const auto& c : calls_) longest = std::max(longest, std::chrono::duration<double>(c.end - c.start).count());
    return longest;
}

std::vector<std::string> Workload::verify(KvClient& reader,
                                          const std::function<bool(const Call&)>& must_survive) const {
    std::vector<std::string> problems;
    for (size_t key = 0; key < keys_.size(); ++key) {
        const std::string where = " in key " + std::to_string(key);
        KvClient::Members stored = reader.zrange_all(keys_[key]);
        if (stored.status != KV_SUCCESS && stored.status != KV_NOTFOUND) {
            problems.push_back("reading back key " + std::to_string(key) + ": " + status_name(stored.status));
            continue;
        }
        double lower = 0, upper = 0;
        for (const auto& c : calls_) {
            if (c.key != key) continue;
            if (c.kind == CallKind::kIncrement) {
                if (acknowledged(c.status) && must_survive(c)) ++lower;
                if (!never_ran(c.status)) ++upper;
            }
            if (c.kind != CallKind::kWrite) continue;
            const auto it = stored.items.find(member(c.item));
            const bool there = it != stored.items.end();
            if (acknowledged(c.status) && must_survive(c) && !there) {
                problems.push_back("acknowledged " + member(c.item) + where + " is missing");
            } else if (never_ran(c.status) && there) {
                problems.push_back(member(c.item) + where + " is there after " + status_name(c.status));
            }
            if (there && (it->second.first != static_cast<double>(c.item) || it->second.second != value(c.item, key))) {
                problems.push_back(member(c.item) + where + " lost its score or value");
            }
            if (there) stored.items.erase(it);
        }
        const auto counter = stored.items.find(kCounter);
        const double count = counter == stored.items.end() ? 0 : counter->second.first;
        if (count < lower || count > upper) {
            problems.push_back("counter" + where + " is " + std::to_string(count) + ", expected between " +
                               std::to_string(lower) + " and " + std::to_string(upper));
        }
        if (counter != stored.items.end()) stored.items.erase(counter);
        for (const auto& [name, scored] : stored.items) problems.push_back("nobody wrote " + name + where);
    }
    return problems;
}

}  // namespace kelvane_test
