// thread_rounds.h -- one timed round of kelvane_threads: N threads on one
// way start together, each calls its own PointCaller (which may share a
// client with the others) for the round's time on random members, and
// records every call's latency in a buffer of its own, made before the
// round; the buffers are merged after it.
#ifndef KELVANE_BENCH_THREAD_ROUNDS_H
#define KELVANE_BENCH_THREAD_ROUNDS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "point_calls.h"
#include "raw_connection.h"

namespace kelvane_bench {

// The three ways the threads reach the server.
enum class Way { shared, per_thread, raw };
const char* way_name(Way way);  // "shared", "per-thread", "raw"

struct RoundResult {
    std::uint64_t calls = 0;      // answered right
    std::uint64_t failed = 0;     // a failure status or a broken connection
    std::uint64_t wrong = 0;      // an answer that is not what the member holds
    double seconds = 0;           // from the start signal to the end of the last thread
    double p50_us = 0, p99_us = 0;  // over every call of every thread
    double server_us = 0;         // CPU of the server's main thread over the round
    double client_us = 0;         // CPU of this process (all its threads) over the round
    std::string problem;          // the first failure or wrong answer, "" when none
    bool latencies_cut = false;   // a thread made more calls than its buffer holds

    double rate() const { return seconds > 0 ? static_cast<double>(calls) / seconds : 0; }
};

class RoundRunner {
public:
    // Buffers for `threads` threads making calls for `seconds` each round.
    RoundRunner(std::size_t threads, double seconds, std::size_t members);
    ~RoundRunner();
    RoundRunner(const RoundRunner&) = delete;
    RoundRunner& operator=(const RoundRunner&) = delete;

    // One round, one thread per caller; `admin` reads the server's CPU time
    // before and after. `seed` varies the members the threads pick.
    RoundResult run(std::vector<std::unique_ptr<PointCaller>>& callers, RawConnection& admin,
                    std::uint64_t seed);

private:
    struct ThreadLog;
    void merge(RoundResult& result);

    std::chrono::steady_clock::duration length_;
    std::size_t members_;
    std::vector<ThreadLog> logs_;
    std::vector<std::uint32_t> merged_;
};

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_THREAD_ROUNDS_H
