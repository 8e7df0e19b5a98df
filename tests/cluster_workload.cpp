// cluster_workload.cpp -- the cluster tests' kelvane client, the workload's rounds and the comparison of the store
// with its record.
#include "cluster_workload.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace kelvane_test {
namespace {

std::string member(long long item) { return "m" + std::to_string(item); }

// What a write of item put into key: its score and value.
std::pair<double, std::optional<std::string>> written(long long item, size_t key) {
    return {static_cast<double>(item), "value of " + member(item) + " in key " + std::to_string(key)};
}

// The call certainly did not run: it never reached a node, or the cluster refused it before running it.
bool never_ran(int32_t status) {
    return status == KV_NO_SERVER || status == KV_CONNECT_FAILED || status == KV_CLUSTER_DOWN ||
           status == KV_TRY_AGAIN;
}

bool acknowledged(int32_t status) { return status == KV_SUCCESS || status == KV_ALREADY_EXISTS; }

}  // namespace

KvClient::KvClient(int32_t connect_timeout_s, int32_t command_timeout_s, int32_t connect_attempts)
    : bound_s_(connect_attempts * connect_timeout_s + command_timeout_s),
      mm_(kv_mm_create(nullptr, nullptr, nullptr, 0)),
      client_(kv_client_create(connect_timeout_s, command_timeout_s, mm_, connect_attempts)) {
    if (mm_ == nullptr || client_ == nullptr) throw std::runtime_error("cannot create a kelvane client");
}

KvClient::~KvClient() {
    kv_client_destroy(client_);
    EXPECT_EQ(mm_->live_count(mm_), 0u) << "buffers the library handed out and nobody got back";
    kv_mm_destroy(mm_);
}

int32_t KvClient::zaddval(const std::string& key, double score, const std::string& member, const std::string& value) {
    return kv_zaddval(client_, key.data(), key.size(), score, member.data(), member.size(), value.data(),
                      value.size(), 0);
}

KvClient::Scored KvClient::zscore(const std::string& key, const std::string& member) {
    Scored out;
    char* value = nullptr;
    size_t len = 0;
    out.status = kv_zscore(client_, key.data(), key.size(), member.data(), member.size(), &out.score, &value, &len);
    if (value != nullptr) out.value = std::string(value, len);
    mm_->release(value);
    return out;
}

KvClient::Members KvClient::zrange_all(const std::string& key) {
    Members out;
    void **members = nullptr, **values = nullptr;
    size_t count = 0, *members_len = nullptr, *values_len = nullptr;
    double* scores = nullptr;
    out.status = kv_zrange(client_, key.data(), key.size(), 0, -1, &members, &count, &members_len,
                           ZSET_WITH_SCORES | ZSET_WITH_VALUES, &scores, &values, &values_len);
    for (size_t k = 0; k < count && members != nullptr; ++k) {
        std::optional<std::string> value;
        if (values != nullptr && values[k] != nullptr) value = std::string(static_cast<char*>(values[k]), values_len[k]);
        out.items[std::string(static_cast<char*>(members[k]), members_len[k])] = {scores ? scores[k] : 0, value};
        mm_->release(members[k]);
        if (values != nullptr) mm_->release(values[k]);
    }
    for (void* array : {static_cast<void*>(members), static_cast<void*>(members_len), static_cast<void*>(scores),
                        static_cast<void*>(values), static_cast<void*>(values_len)}) {
        mm_->release(array);
    }
    return out;
}

std::string describe(const Call& call) {
    return std::string(call.kind == CallKind::kWrite ? "kv_zaddval" : "kv_zscore") + " on key " + std::to_string(call.key) + " (" +
           member(call.item) + "): status " + std::to_string(call.status) +
           (call.problem.empty() ? "" : ", " + call.problem);
}

Workload::Workload(std::vector<std::string> keys, const std::vector<int>& seeds)
    : keys_(std::move(keys)), client_(std::make_unique<KvClient>(1, 2, 2)) {
    for (int port : seeds) EXPECT_EQ(client_->add_seed(port), KV_SUCCESS) << "seed " << port;
}

void Workload::wait_rounds(size_t rounds) const {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (rounds_ < rounds && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

void Workload::stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
}

void Workload::run() {
    std::vector<long long> last_acked(keys_.size(), -1);
    for (long long item = 0; !stopping_; ++item, ++rounds_) {
        const size_t key = static_cast<size_t>(item) % keys_.size();
        const auto [score, value] = written(item, key);
        calls_.push_back(Call{CallKind::kWrite, key, item, -1, Clock::now(), {}, {}});
        calls_.back().status = client_->zaddval(keys_[key], score, member(item), *value);
        calls_.back().end = Clock::now();
        if (acknowledged(calls_.back().status)) last_acked[key] = item;
        if (const long long read = last_acked[key]; read >= 0) {
            calls_.push_back(Call{CallKind::kScore, key, read, -1, Clock::now(), {}, {}});
            const KvClient::Scored got = client_->zscore(keys_[key], member(read));
            calls_.back().end = Clock::now();
            calls_.back().status = got.status;
            if (got.status == KV_SUCCESS && std::make_pair(got.score, got.value) != written(read, key)) {
                calls_.back().problem = "read score " + std::to_string(got.score) + ", value " + got.value.value_or("-");
            }
        }
        // Leaves the two shared cores to the nodes and to the test's own thread most of the time.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

std::vector<std::string> Workload::bad_calls(const std::function<bool(const Call&)>& fine) const {
    std::vector<std::string> out;
    for (const auto& c : calls_) {
        if ((!fine(c) || !c.problem.empty()) && out.size() < 10) out.push_back(describe(c));
    }
    return out;
}

std::vector<std::string> Workload::verify(KvClient& reader, const std::function<bool(const Call&)>& must_survive) const {
    std::vector<std::string> problems;
    for (size_t key = 0; key < keys_.size(); ++key) {
        const std::string where = " in key " + std::to_string(key);
        KvClient::Members stored = reader.zrange_all(keys_[key]);
        if (stored.status != KV_SUCCESS && stored.status != KV_NOTFOUND) {
            problems.push_back("reading back" + where + ": status " + std::to_string(stored.status));
            continue;
        }
        for (const auto& c : calls_) {
            if (c.key != key || c.kind != CallKind::kWrite) continue;
            const auto it = stored.items.find(member(c.item));
            const bool there = it != stored.items.end();
            if (acknowledged(c.status) && must_survive(c) && !there) {
                problems.push_back("acknowledged " + member(c.item) + where + " is missing");
            } else if (never_ran(c.status) && there) {
                problems.push_back(member(c.item) + where + " is there after status " + std::to_string(c.status));
            }
            if (there && it->second != written(c.item, key)) {
                problems.push_back(member(c.item) + where + " lost its score or value");
            }
            if (there) stored.items.erase(it);
        }
        for (const auto& item : stored.items) problems.push_back("nobody wrote " + item.first + where);
    }
    return problems;
}

}  // namespace kelvane_test
