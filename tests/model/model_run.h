// model_run.h -- a seeded run of random kelvane operations against a real
// server and the reference model at once. Each step picks one operation of
// the public interface, predicts its status and results from the model,
// makes the call, compares everything it hands back (out-parameters on
// failures included), applies the write to the model, and checks that every
// buffer came back to the memory manager. The first difference ends the run
// with a Mismatch naming the operation.
#ifndef KELVANE_TESTS_MODEL_MODEL_RUN_H
#define KELVANE_TESTS_MODEL_MODEL_RUN_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "counting_manager.h"
#include "kelvane.h"
#include "reference_model.h"

namespace kelvane_model {

struct Mismatch : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A time-to-live as the caller wrote it: "COMMIT_TTL(t)" or the seconds.
std::string ttl_text(int32_t ttl);

class ModelRun {
public:
    ModelRun(int port, uint64_t seed);
    ~ModelRun();
    ModelRun(const ModelRun&) = delete;
    ModelRun& operator=(const ModelRun&) = delete;

    // One random operation, checked. Throws Mismatch.
    void step();
    // Lets most of a second go by, then reads the time-to-live of every key:
    // what is left of an expiry is then rarely a whole number of seconds.
    void let_time_pass();
    // The server's own layout rules, and as many kelvane keys as the model
    // holds. Throws Mismatch.
    void check_server();
    // Destroys the client and the manager: every block of the allocator must
    // be back. Throws Mismatch.
    void finish();

    // The operation under way (or the last one), and the few before it.
    std::string recent_ops() const;

private:
    // ---- choosing inputs (model_run.cpp) ----
    uint64_t below(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng_); }
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    template <class T>
    const T& pick(const std::vector<T>& from) { return from[below(from.size())]; }
    std::string key();
    // Often a member the key holds, so updates, ranks and removals hit.
    std::string member(const std::string& key);
    std::string value();
    double score();
    // A score bound: often a score the key holds, so bounds are met exactly.
    double bound(const std::string& key);
    int32_t rank();
    int32_t ttl();
    std::string suffix();

    // ---- checking (model_run.cpp) ----
    void begin(std::string description);
    [[noreturn]] void fail(const std::string& why) const;
    void expect(bool ok, const std::string& why) const;
    void expect_status(int32_t got, int32_t want) const;
    // Runs call() and notes when, on the wall clock, it ran.
    template <class Call>
    int32_t timed(CallTime& at, const Call& call);
    // The value a read handed back: NULL or bytes with a zero byte after them.
    std::optional<std::string> take_value(char* value, size_t len, const char* what);

    // ---- writes (model_writes.cpp) ----
    void zadd(bool with_value);
    void zmadd(bool with_values);
    void zaddvalmax();
    void zaddmaxinc();
    void zadddis();
    void zincrby();
    void sadd();
    // ---- reads (model_reads.cpp) ----
    void zscore();
    void zrank();
    void zcard();
    void zcount();
    void range();
    void whole_key();
    // ---- removals and keys (model_removals.cpp) ----
    void zrem();
    void zmrem();
    void zremrangebyscore();
    void zremrangebyrank();
    void del();
    void get_ttl(const std::string& key);
    // ---- arguments the library refuses, and a new client (model_refused.cpp) ----
    void refused();
    void reconnect();

    void connect();

    int port_;
    uint64_t seed_;
    std::mt19937_64 rng_;
    std::vector<std::string> keys_;
    ReferenceModel model_;
    CountingManager mm_;
    kv_client* client_ = nullptr;
    std::vector<std::pair<int, std::function<void()>>> operations_;
    int total_weight_ = 0;
    uint64_t step_ = 0;
    std::deque<std::string> history_;
};

template <class Call>
int32_t ModelRun::timed(CallTime& at, const Call& call) {
    const auto now_ms = [] {
        using namespace std::chrono;
        return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    };
    at.before_ms = now_ms() / 1000;
    const int32_t status = call();
    at.after_ms = now_ms() / 1000 + 1;
    return status;
}

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_MODEL_RUN_H
