// chaos_client.h -- what one client process of the chaos test does while
// the server is restarted, frozen, stripped of its functions and cut off:
// writes unique members into keys of its own and logs each one the server
// acknowledged, reads them back along the way, and runs random operations
// on keys that every client shares. Any status but the expected ones and
// the transport ones (KV_TIMEOUT, KV_CONNECTION_LOST, KV_CONNECT_FAILED)
// ends it with a message and a nonzero exit status.
#ifndef KELVANE_TESTS_MODEL_CHAOS_CLIENT_H
#define KELVANE_TESTS_MODEL_CHAOS_CLIENT_H

#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "ack_log.h"
#include "counting_manager.h"
#include "kelvane.h"

namespace kelvane_model {

struct ChaosConfig {
    int port = 0;
    int id = 0;
    uint64_t seed = 0;
    std::string stop_file;  // the run ends once this file exists
    std::string ack_file;
};

// Exit statuses of a client process.
enum ChaosExit : int {
    kChaosOk = 0,
    kChaosUnexpected = 2,     // a status or result no correct library gives
    kChaosLostWrite = 3,      // an acknowledged member missing or changed
    kChaosUnreleased = 4,     // buffers left with the memory manager
    kChaosNoRecovery = 5,     // no call succeeded after the chaos ended
    kChaosNeverStopped = 6,   // no stop file within the time limit
};

class ChaosClient {
public:
    explicit ChaosClient(ChaosConfig config);
    ~ChaosClient();
    ChaosClient(const ChaosClient&) = delete;
    ChaosClient& operator=(const ChaosClient&) = delete;

    // Runs until the stop file appears, then checks it recovered and that
    // its acknowledged members are there. Returns the exit status.
    int run();

private:
    uint64_t below(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng_); }
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    template <class T>
    const T& pick(const std::vector<T>& from) { return from[below(from.size())]; }

    std::string own_key(uint64_t i) const;
    double score();
    int32_t shared_ttl();
    // Ends the run (throws) unless status is a transport one or in ok.
    // Returns true when the call went through (not a transport status).
    bool allow(int32_t status, std::initializer_list<int32_t> ok, const std::string& call);
    void check_released(const std::string& call);

    void write_acknowledged();
    void read_back_acknowledged();
    void scratch_on_own_key();
    void shared_operation();  // chaos_shared.cpp
    void shared_write(const std::string& key);
    void shared_read(const std::string& key);
    void shared_removal(const std::string& key);
    void recover_and_verify();

    ChaosConfig config_;
    std::mt19937_64 rng_;
    CountingManager mm_;
    kv_client* client_ = nullptr;
    AckLog log_;
    std::vector<Acknowledged> acknowledged_;
    uint64_t sequence_ = 0;
    uint64_t calls_ = 0, transport_failures_ = 0;
};

// Thrown to end a run: the exit status and what went wrong.
struct ChaosFailure {
    int exit_status;
    std::string message;
};

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_CHAOS_CLIENT_H
