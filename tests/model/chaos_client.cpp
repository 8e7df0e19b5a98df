// chaos_client.cpp -- a chaos client's own keys: acknowledged writes, reading
// them back during and after the chaos, and the run loop.
#include "chaos_client.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

#include "byte_text.h"
#include "range_call.h"

namespace kelvane_model {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::string_literals;

bool transport(int32_t status) {
    return status == KV_TIMEOUT || status == KV_CONNECTION_LOST || status == KV_CONNECT_FAILED;
}

// Longer than any run; the chaos test never waits for an expiry on own keys.
constexpr int32_t kDay = 86400;
// A client that is never told to stop gives up after this long.
constexpr auto kLongestRun = std::chrono::seconds(120);
// After the chaos, how long a client may take to get through again.
constexpr auto kRecoveryTime = std::chrono::seconds(20);

}  // namespace

ChaosClient::ChaosClient(ChaosConfig config)
    : config_(std::move(config)), rng_(config_.seed), log_(config_.ack_file) {
    // One connection attempt and one second per wait: a call never takes long
    // against a frozen or restarting server, so the client sees much chaos.
    client_ = kv_client_create(1, 1, mm_.get(), 1);
    if (client_ == nullptr) throw ChaosFailure{kChaosUnexpected, "kv_client_create failed"};
    const int32_t status = kv_server_add(client_, "127.0.0.1", static_cast<uint32_t>(config_.port), nullptr);
    allow(status, {KV_SUCCESS}, "kv_server_add");
}

ChaosClient::~ChaosClient() {
    if (client_ != nullptr) kv_client_destroy(client_);
}

std::string ChaosClient::own_key(uint64_t i) const {
    return "own{" + std::to_string(config_.id) + "}\0%"s + std::to_string(i);
}

double ChaosClient::score() {
    const uint64_t kind = below(10);
    if (kind < 5) return static_cast<double>(below(5));  // ties
    if (kind < 8) return std::uniform_real_distribution<double>(-1e6, 1e6)(rng_);
    return pick(std::vector<double>{-INFINITY, INFINITY, 1e300, -5e-324, 0.1});
}

bool ChaosClient::allow(int32_t status, std::initializer_list<int32_t> ok, const std::string& call) {
    ++calls_;
    if (transport(status)) {
        ++transport_failures_;
        return false;
    }
    if (std::find(ok.begin(), ok.end(), status) == ok.end()) {
        throw ChaosFailure{kChaosUnexpected, call + ": unexpected status " + std::to_string(status)};
    }
    return true;
}

void ChaosClient::check_released(const std::string& call) {
    if (mm_.live() != 0) {
        throw ChaosFailure{kChaosUnreleased, call + ": " + std::to_string(mm_.live()) +
                                                 " buffers left with the memory manager"};
    }
}

void ChaosClient::write_acknowledged() {
    const std::string key = own_key(below(3));
    const uint64_t n = chance(0.4) ? 2 + below(3) : 1;
    const bool with_values = chance(0.7);
    std::vector<Acknowledged> batch;
    for (uint64_t i = 0; i < n; ++i) {
        // Unique, never removed, never written twice: the one write that
        // acknowledges it is the only way it can be there.
        const std::string name = "m" + std::to_string(config_.id) + ":" + std::to_string(++sequence_) + "\0{%}"s;
        std::optional<std::string> value;
        if (with_values) {
            value = pick(std::vector<std::string>{"", "v", "\0v\0"s, std::string(300, 'v')}) +
                    std::to_string(sequence_);
        }
        batch.push_back(Acknowledged{key, name, score(), value});
    }
    const uint64_t t = below(10);
    const int32_t ttl = t < 7 ? 0 : t < 9 ? COMMIT_TTL(kDay + static_cast<int32_t>(below(1000))) : kDay;
    std::vector<const char*> names, values;
    std::vector<size_t> name_lens, value_lens;
    std::vector<double> scores;
    for (const auto& a : batch) {
        names.push_back(a.member.data());
        name_lens.push_back(a.member.size());
        values.push_back(a.value ? a.value->data() : nullptr);
        value_lens.push_back(a.value ? a.value->size() : 0);
        scores.push_back(a.score);
    }
    const char* k = key.data();
    const auto count = static_cast<uint32_t>(n);
    int32_t status;
    std::string call;
    if (n == 1 && with_values) {
        call = "kv_zaddval";
        status = kv_zaddval(client_, k, key.size(), scores[0], names[0], name_lens[0], values[0], value_lens[0], ttl);
    } else if (n == 1) {
        call = "kv_zadd";
        status = kv_zadd(client_, k, key.size(), scores[0], names[0], name_lens[0], ttl);
    } else if (with_values) {
        call = "kv_zmaddval";
        status = kv_zmaddval(client_, k, key.size(), scores.data(), names.data(), count, name_lens.data(),
                             values.data(), value_lens.data(), ttl);
    } else {
        call = "kv_zmadd";
        status = kv_zmadd(client_, k, key.size(), scores.data(), names.data(), count, name_lens.data(), ttl);
    }
    call += " of new members into " + quoted(key) + " (first " + quoted(batch[0].member) + ")";
    if (!allow(status, {KV_SUCCESS}, call)) return;
    for (const auto& a : batch) {
        if (!log_.append(a)) throw ChaosFailure{kChaosUnexpected, "cannot write " + config_.ack_file};
        acknowledged_.push_back(a);
    }
}

void ChaosClient::read_back_acknowledged() {
    if (acknowledged_.empty()) return;
    const Acknowledged& a = pick(acknowledged_);
    auto lost = [&](const std::string& how) {
        throw ChaosFailure{kChaosLostWrite,
                           "acknowledged member " + quoted(a.member) + " in " + quoted(a.key) + ": " + how};
    };
    if (chance(0.5)) {
        double sc = 0;
        char* value = nullptr;
        size_t len = 0;
        const int32_t status = kv_zscore(client_, a.key.data(), a.key.size(), a.member.data(), a.member.size(),
                                         &sc, &value, &len);
        const std::optional<std::string> got = value ? std::optional(std::string(value, len)) : std::nullopt;
        mm_.get()->release(value);
        if (!allow(status, {KV_SUCCESS, KV_NOTFOUND, KV_NO_SET_KEY}, "kv_zscore")) return;
        if (status != KV_SUCCESS) lost("kv_zscore answered " + std::to_string(status));
        if (!(sc == a.score) || got != a.value) {
            lost("kv_zscore gives " + score_text(sc) + " " + quoted(got) + ", acknowledged " + score_text(a.score) +
                 " " + quoted(a.value));
        }
        return;
    }
    RangeQuery q;
    q.by = RangeBy::Score;
    q.min = q.max = a.score;
    q.flags = ZSET_WITH_SCORES | ZSET_WITH_VALUES | (chance(0.5) ? ZSET_REVERSE : 0);
    const RangeResult r = read_range(client_, mm_.get(), a.key, q);
    const std::string call = describe(a.key, q);
    if (!r.fault.empty()) throw ChaosFailure{kChaosUnexpected, call + ": " + r.fault};
    if (!allow(r.status, {KV_SUCCESS, KV_NOTFOUND}, call)) return;
    if (r.status != KV_SUCCESS) lost(call + " answered " + std::to_string(r.status));
    const auto at = std::find(r.members.begin(), r.members.end(), a.member);
    if (at == r.members.end()) lost(call + " does not list it");
    const size_t k = static_cast<size_t>(at - r.members.begin());
    if (r.values[k] != a.value) lost("its value reads " + quoted(r.values[k]) + ", acknowledged " + quoted(a.value));
}

void ChaosClient::scratch_on_own_key() {
    // Members beside the acknowledged ones, changed and removed freely.
    const std::string key = own_key(below(3));
    const std::string name = "scratch" + std::to_string(below(3));
    const char* k = key.data();
    const std::string where = " of " + quoted(name) + " in " + quoted(key);
    switch (below(3)) {
        case 0: {
            const int32_t status = kv_zaddval(client_, k, key.size(), static_cast<double>(below(9)), name.data(),
                                              name.size(), "s", 1, chance(0.2) ? COMMIT_TTL(kDay) : 0);
            allow(status, {KV_SUCCESS, KV_ALREADY_EXISTS}, "kv_zaddval" + where);
            break;
        }
        case 1: {
            double sc = 0;
            const int32_t status = kv_zincrby(client_, k, key.size(), name.data(), name.size(), 0.5, &sc, 0);
            allow(status, {KV_SUCCESS}, "kv_zincrby" + where);
            break;
        }
        default:
            allow(kv_zrem(client_, k, key.size(), name.data(), name.size()), {KV_SUCCESS, KV_NOTFOUND},
                  "kv_zrem" + where);
    }
}

void ChaosClient::recover_and_verify() {
    const auto deadline = Clock::now() + kRecoveryTime;
    auto wait_or_give_up = [&] {
        if (Clock::now() > deadline) {
            throw ChaosFailure{kChaosNoRecovery, "calls still failed " + std::to_string(kRecoveryTime.count()) +
                                                     " s after the chaos"};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    };
    const std::string first = own_key(0);
    uint32_t n = 0;
    while (!allow(kv_zcard(client_, first.data(), first.size(), &n), {KV_SUCCESS}, "kv_zcard")) wait_or_give_up();
    for (const Acknowledged& a : acknowledged_) {
        while (true) {
            double sc = 0;
            char* value = nullptr;
            size_t len = 0;
            const int32_t status = kv_zscore(client_, a.key.data(), a.key.size(), a.member.data(), a.member.size(),
                                             &sc, &value, &len);
            const std::optional<std::string> got = value ? std::optional(std::string(value, len)) : std::nullopt;
            mm_.get()->release(value);
            if (!allow(status, {KV_SUCCESS, KV_NOTFOUND, KV_NO_SET_KEY}, "kv_zscore")) {
                wait_or_give_up();
                continue;
            }
            if (status != KV_SUCCESS || !(sc == a.score) || got != a.value) {
                throw ChaosFailure{kChaosLostWrite, "after the chaos, acknowledged member " + quoted(a.member) +
                                                        " in " + quoted(a.key) + ": status " + std::to_string(status) +
                                                        ", score " + score_text(sc) + ", value " + quoted(got)};
            }
            break;
        }
    }
}

int ChaosClient::run() {
    const auto give_up = Clock::now() + kLongestRun;
    try {
        while (access(config_.stop_file.c_str(), F_OK) != 0) {
            if (Clock::now() > give_up) throw ChaosFailure{kChaosNeverStopped, "never told to stop"};
            const uint64_t roll = below(100);
            if (roll < 30) {
                write_acknowledged();
            } else if (roll < 45) {
                read_back_acknowledged();
            } else if (roll < 55) {
                scratch_on_own_key();
            } else {
                shared_operation();
            }
            check_released("after a call");
        }
        recover_and_verify();
        check_released("after the checks");
        kv_client_destroy(client_);
        client_ = nullptr;
        check_released("after kv_client_destroy");
    } catch (const ChaosFailure& failure) {
        std::fprintf(stderr, "chaos client %d (seed %llu), call %llu: %s\n", config_.id,
                     static_cast<unsigned long long>(config_.seed), static_cast<unsigned long long>(calls_ + 1),
                     failure.message.c_str());
        return failure.exit_status;
    }
    std::printf("chaos client %d: %llu calls, %llu transport failures, %zu members acknowledged\n", config_.id,
                static_cast<unsigned long long>(calls_), static_cast<unsigned long long>(transport_failures_),
                acknowledged_.size());
    return kChaosOk;
}

}  // namespace kelvane_model
