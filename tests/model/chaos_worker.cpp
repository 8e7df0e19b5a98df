// chaos_worker.cpp -- one client process of the chaos test (test_library_chaos.cpp), with a kelvane client of
// its own, while the test restarts, freezes and thaws the server, flushes its functions and kills its clients.
// It writes unique members into keys of its own and remembers each one the server acknowledged, reads them back
// along the way, and runs random operations on keys every client shares, where only what holds whatever the
// others do is checked: the statuses a call may give and the shape of its results. Any other status than those
// and the transport ones, a buffer left out, or an acknowledged member missing or changed ends it with status 1.
//
// usage: library_chaos_worker PORT ID SEED STOP_FILE   (runs until STOP_FILE exists)
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <random>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "model_support.h"

namespace {

using namespace kelvane_model;
using namespace std::string_literals;
using Clock = std::chrono::steady_clock;
using Text = std::optional<std::string>;

const std::vector<std::string> kSharedKeys = {"s", "", "{", "%", "s\0t"s, "kv{s}"};
const std::vector<std::string> kSharedMembers = {"a", "b", "", "\0"s, "{m}", "1", "2"};
const std::vector<std::string> kSharedValues = {"", "v", "\0w"s, std::string(500, 'v')};
constexpr int32_t kDay = 86400;  // longer than any run: own keys never expire

struct Acknowledged {
    std::string key, member;
    double score;
    Text value;
};

class Worker {
public:
    Worker(int port, int id, uint64_t seed) : id_(id), rng_(seed) {
        // One connection attempt and one second per wait: against a frozen or restarting server a call never takes
        // long, so the client sees much of the chaos.
        client_ = kv_client_create(1, 1, mm_.get(), 1);
        if (client_ == nullptr) throw std::runtime_error("kv_client_create failed");
        allow(kv_server_add(client_, "127.0.0.1", static_cast<uint32_t>(port), nullptr), {KV_SUCCESS}, "kv_server_add");
    }

    void run(const std::string& stop_file) {
        const auto give_up = Clock::now() + std::chrono::seconds(60);
        while (access(stop_file.c_str(), F_OK) != 0) {
            if (Clock::now() > give_up) throw std::runtime_error("never told to stop");
            const uint64_t roll = below(100);
            if (roll < 30) {
                write_acknowledged();
            } else if (roll < 45 && !acknowledged_.empty()) {
                read_back(pick(acknowledged_), false);
            } else {
                shared();
            }
            if (mm_.live() != 0) throw std::runtime_error(std::to_string(mm_.live()) + " buffers left out");
        }
        // The chaos is over: every call must get through again, and every acknowledged member be there.
        if (acknowledged_.empty()) throw std::runtime_error("no write was ever acknowledged");
        for (const Acknowledged& a : acknowledged_) read_back(a, true);
        kv_client_destroy(client_);
        client_ = nullptr;
        if (const long left = mm_.destroy()) throw std::runtime_error(std::to_string(left) + " allocator blocks out");
        std::printf("chaos client %d: %llu calls, %llu transport failures, %zu members acknowledged\n", id_,
                    static_cast<unsigned long long>(calls_), static_cast<unsigned long long>(transport_failures_),
                    acknowledged_.size());
    }

private:
    uint64_t below(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng_); }
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    template <class T>
    const T& pick(const std::vector<T>& from) { return from[below(from.size())]; }
    std::string own_key() { return "own{" + std::to_string(id_) + "}\0%"s + std::to_string(below(3)); }
    double score() {
        const uint64_t kind = below(10);
        if (kind < 5) return static_cast<double>(below(5));  // ties
        if (kind < 8) return std::uniform_real_distribution<double>(-1e6, 1e6)(rng_);
        return pick(std::vector<double>{-INFINITY, INFINITY, 1e300, -5e-324, 0.1});
    }

    // Throws unless status is in ok or a transport one; true when the call went through.
    bool allow(int32_t status, const std::vector<int32_t>& ok, const std::string& call) {
        ++calls_;
        if (status == KV_TIMEOUT || status == KV_CONNECTION_LOST || status == KV_CONNECT_FAILED) {
            ++transport_failures_;
            return false;
        }
        if (std::find(ok.begin(), ok.end(), status) == ok.end()) {
            throw std::runtime_error(call + ": unexpected status " + std::to_string(status));
        }
        return true;
    }

    // New members, never written twice nor removed: the one write that acknowledges one is the only way it can
    // be there.
    void write_acknowledged() {
        const std::string key = own_key();
        const size_t n = chance(0.4) ? 2 + below(3) : 1;
        const bool with_values = chance(0.7);
        std::vector<Acknowledged> batch(n);
        std::vector<const char*> np(n), vp(n);
        std::vector<size_t> nl(n), vl(n);
        std::vector<double> scores(n);
        for (size_t i = 0; i < n; ++i) {
            const std::string seq = std::to_string(++sequence_);
            const std::string bytes = pick(std::vector<std::string>{"", "v", "\0v\0"s, std::string(300, 'v')});
            Acknowledged& a = batch[i];
            a = {key, "m" + std::to_string(id_) + ":" + seq + "\0{%}"s, score(), Text(bytes + seq)};
            if (!with_values) a.value.reset();
            np[i] = a.member.data();
            nl[i] = a.member.size();
            vp[i] = a.value ? a.value->data() : nullptr;
            vl[i] = a.value ? a.value->size() : 0;
            scores[i] = a.score;
        }
        const uint64_t t = below(10);
        const int32_t ttl = t < 7 ? 0 : t < 9 ? COMMIT_TTL(kDay + static_cast<int32_t>(below(1000))) : kDay;
        const char* k = key.data();
        const auto c = static_cast<uint32_t>(n);
        const int32_t status =
            n == 1 && with_values ? kv_zaddval(client_, k, key.size(), scores[0], np[0], nl[0], vp[0], vl[0], ttl)
            : n == 1              ? kv_zadd(client_, k, key.size(), scores[0], np[0], nl[0], ttl)
            : with_values
                ? kv_zmaddval(client_, k, key.size(), scores.data(), np.data(), c, nl.data(), vp.data(), vl.data(), ttl)
                : kv_zmadd(client_, k, key.size(), scores.data(), np.data(), c, nl.data(), ttl);
        if (allow(status, {KV_SUCCESS}, "a write of new members into " + quote(key))) {
            acknowledged_.insert(acknowledged_.end(), batch.begin(), batch.end());
        }
    }

    // Through kv_zscore; after the chaos, until it gets through.
    void read_back(const Acknowledged& a, bool until_through) {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        for (;;) {
            double sc = 0;
            char* value = nullptr;
            size_t len = 0;
            const int32_t status =
                kv_zscore(client_, a.key.data(), a.key.size(), a.member.data(), a.member.size(), &sc, &value, &len);
            const Text got = take(mm_.get(), value, len);
            if (allow(status, {KV_SUCCESS, KV_NOTFOUND, KV_NO_SET_KEY}, "kv_zscore")) {
                if (status != KV_SUCCESS || !(sc == a.score) || got != a.value) {
                    throw std::runtime_error("acknowledged member " + quote(a.member) + " in " + quote(a.key) +
                                             ": status " + std::to_string(status) + ", score " + score_text(sc) +
                                             ", value " + quote(got) + "; acknowledged " + score_text(a.score) +
                                             ", " + quote(a.value));
                }
                return;
            }
            if (!until_through) return;
            if (Clock::now() > deadline) throw std::runtime_error("calls still fail 20 s after the chaos");
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    // Some writes give a shared key an expiry of up to two seconds, so keys also expire in the middle of it all.
    int32_t shared_ttl() {
        const uint64_t kind = below(20);
        return kind < 12 ? 0 : kind < 15 ? COMMIT_TTL(kDay) : kind < 17 ? kDay : COMMIT_TTL(int32_t(below(3)));
    }

    // One random operation of every kind on the keys every client shares.
    void shared() {
        const std::string key = pick(kSharedKeys), m = pick(kSharedMembers), v = pick(kSharedValues);
        const char *k = key.data(), *mp = m.data(), *vp = v.data();
        const size_t kl = key.size(), ml = m.size(), vl = v.size();
        const int32_t ttl = shared_ttl();
        // Finite increments: sums are never NaN, whatever the others wrote.
        const double sc = score(), finite = static_cast<double>(below(7)) - 2;
        const std::vector<int32_t> write = {KV_SUCCESS, KV_ALREADY_EXISTS, KV_WRONG_REPLY},
                                   read = {KV_SUCCESS, KV_NOTFOUND, KV_NO_SET_KEY, KV_WRONG_REPLY},
                                   removal = {KV_SUCCESS, KV_NOTFOUND, KV_WRONG_REPLY},
                                   any_key = {KV_SUCCESS, KV_NOTFOUND}, counted = {KV_SUCCESS, KV_WRONG_REPLY};
        const double scores[] = {sc, finite, sc};
        const char* names[] = {mp, "b", mp};
        const char* values[] = {vp, "w", "last"};
        const size_t lens[] = {ml, 1, ml}, value_lens[] = {vl, 1, 4};
        uint32_t n = 0;
        double d = 0;
        char* text = nullptr;
        size_t len = 0;
        int32_t t = -1;
        const auto range = [&] {
            RangeQuery q;
            q.by_score = chance(0.5);
            q.min = -INFINITY;
            q.max = static_cast<double>(below(5));
            q.flags = ZSET_WITH_SCORES | (chance(0.5) ? ZSET_WITH_VALUES : 0) | (chance(0.5) ? ZSET_REVERSE : 0);
            if (chance(0.3)) q.suffix = "\0"s;
            const RangeResult r = read_range(client_, mm_.get(), key, q);
            if (!r.fault.empty()) throw std::runtime_error(describe(key, q) + ": " + r.fault);
            return r.status;
        };
        const auto released = [&](int32_t status) {
            mm_.get()->release(text);
            return status;
        };
        const std::vector<std::tuple<const char*, const std::vector<int32_t>&, std::function<int32_t()>>> ops = {
            {"kv_zadd", write, [&] { return kv_zadd(client_, k, kl, sc, mp, ml, ttl); }},
            {"kv_zaddval", write, [&] { return kv_zaddval(client_, k, kl, sc, mp, ml, vp, vl, ttl); }},
            {"kv_zmaddval", write,
             [&] { return kv_zmaddval(client_, k, kl, scores, names, 3, lens, values, value_lens, ttl); }},
            {"kv_zmadd", write, [&] { return kv_zmadd(client_, k, kl, scores, names, 3, lens, ttl); }},
            {"kv_zaddvalmax", write, [&] { return kv_zaddvalmax(client_, k, kl, mp, ml, vp, vl, finite, ttl); }},
            {"kv_zaddmaxinc", write, [&] { return kv_zaddmaxinc(client_, k, kl, static_cast<int32_t>(finite), ttl); }},
            {"kv_zadddis", write, [&] {
                 const int32_t status = kv_zadddis(client_, k, kl, finite, mp, ml, 2, &text, ttl);
                 // A name comes back only from a move within the drift, which answers KV_SUCCESS.
                 return text != nullptr && status != KV_SUCCESS ? -1 : released(status);
             }},
            {"kv_zincrby", counted, [&] { return kv_zincrby(client_, k, kl, mp, ml, finite, &d, ttl); }},
            {"kv_sadd", write, [&] { return kv_sadd(client_, k, kl, mp, ml, ttl); }},
            {"kv_zscore", read, [&] { return released(kv_zscore(client_, k, kl, mp, ml, &d, &text, &len)); }},
            {"kv_zrank", read, [&] {
                 return released(kv_zrank(client_, k, kl, mp, ml, &n, ZSET_WITH_VALUES | ZSET_REVERSE, &text, &len));
             }},
            {"kv_zcount", counted, [&] { return kv_zcount(client_, k, kl, -1, 3, &n); }},
            {"kv_zcard", counted, [&] { return kv_zcard(client_, k, kl, &n); }},
            {"a range read", removal, range},
            {"a range read", removal, range},
            {"kv_zrem", removal, [&] { return kv_zrem(client_, k, kl, mp, ml); }},
            {"kv_zmrem", removal, [&] { return kv_zmrem(client_, k, kl, names, 3, lens, &n); }},
            {"kv_zremrangebyscore", counted, [&] { return kv_zremrangebyscore(client_, k, kl, 0, 1, &n); }},
            {"kv_zremrangebyrank", counted, [&] { return kv_zremrangebyrank(client_, k, kl, -2, -1, &n); }},
            {"kv_del", any_key, [&] { return kv_del(client_, k, kl); }},
            {"kv_get_ttl", any_key, [&] {
                 const int32_t status = kv_get_ttl(client_, k, kl, &t);
                 return t < 0 || t > kDay ? -1 : status;
             }},
        };
        const auto& [name, ok, call] = ops[below(ops.size())];
        allow(call(), ok, std::string(name) + " on " + quote(key) + " with " + quote(m));
    }

    int id_;
    std::mt19937_64 rng_;
    CountingManager mm_;
    kv_client* client_ = nullptr;
    std::vector<Acknowledged> acknowledged_;
    uint64_t sequence_ = 0, calls_ = 0, transport_failures_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s PORT ID SEED STOP_FILE\n", argv[0]);
        return 2;
    }
    try {
        Worker(std::atoi(argv[1]), std::atoi(argv[2]), std::strtoull(argv[3], nullptr, 10)).run(argv[4]);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "chaos client %s (seed %s): %s\n", argv[2], argv[3], e.what());
        return 1;
    }
}
