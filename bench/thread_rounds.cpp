// thread_rounds.cpp -- starting the threads together, timing every call and
// merging what they recorded.
#include "thread_rounds.h"

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <iostream>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace kelvane_bench {
namespace {

using Clock = std::chrono::steady_clock;

// No thread makes a call faster than a loopback round trip (a few
// microseconds), so 250,000 calls a second is more than one thread can
// record; with many threads they share one server, and a million a second
// between them is several times what one Redis serves (4 MB of buffers
// per second of a round).
constexpr double kMostCallsPerThread = 250000;
constexpr double kMostCallsAltogether = 1000000;

// Every call returns within its client's bound (14 s as the benchmark makes
// its clients) and a raw call within hiredis's timeout; a thread still in a
// call this long after the round's end is stuck for good.
constexpr std::chrono::seconds kHangBound{90};

// xorshift64*: a random member per call for a few instructions, and a
// sequence of its own per thread.
struct MemberPicker {
    std::uint64_t state;
    explicit MemberPicker(std::uint64_t seed) : state(seed * 0x9E3779B97F4A7C15ULL | 1) {}
    std::size_t next(std::size_t members) {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        return static_cast<std::size_t>((state * 0x2545F4914F6CDD1DULL) >> 33) % members;
    }
};

double process_cpu_us() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto us = [](const timeval& t) { return t.tv_sec * 1e6 + static_cast<double>(t.tv_usec); };
    return us(usage.ru_utime) + us(usage.ru_stime);
}

// The nearest-rank percentile q of the values, which it reorders.
double percentile_us(std::vector<std::uint32_t>& ns, double q) {
    if (ns.empty()) return 0;
    const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(ns.size())));
    const auto at = ns.begin() + static_cast<std::ptrdiff_t>(std::max<std::size_t>(rank, 1) - 1);
    std::nth_element(ns.begin(), at, ns.end());
    return *at / 1000.0;
}

}  // namespace

// Written by its own thread only; aligned apart so that threads never share
// a cache line.
struct alignas(64) RoundRunner::ThreadLog {
    std::vector<std::uint32_t> latency_ns;  // made and touched before any round
    std::size_t recorded = 0;
    std::uint64_t calls = 0, failed = 0, wrong = 0;
    bool cut = false;
    Clock::time_point end;
    std::string problem;
};

const char* way_name(Way way) {
    switch (way) {
        case Way::shared: return "shared";
        case Way::per_thread: return "per-thread";
        case Way::raw: return "raw";
    }
    return "?";
}

RoundRunner::RoundRunner(std::size_t threads, double seconds, std::size_t members)
    : length_(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))),
      members_(members),
      logs_(threads) {
    const double per_thread =
        std::min(kMostCallsPerThread, kMostCallsAltogether / static_cast<double>(threads));
    const auto capacity = static_cast<std::size_t>(seconds * per_thread) + 1024;
    for (auto& log : logs_) log.latency_ns.assign(capacity, 0);
    merged_.reserve(capacity * threads);
}

RoundRunner::~RoundRunner() = default;

RoundResult RoundRunner::run(std::vector<std::unique_ptr<PointCaller>>& callers, RawConnection& admin,
                             std::uint64_t seed) {
    if (callers.size() > logs_.size()) throw std::logic_error("more callers than thread buffers");
    std::promise<Clock::time_point> start_signal;
    std::shared_future<Clock::time_point> start = start_signal.get_future().share();
    std::mutex finished_mutex;
    std::condition_variable finished_cv;
    std::size_t finished = 0;
    std::vector<std::thread> threads;
    threads.reserve(callers.size());
    for (std::size_t t = 0; t < callers.size(); ++t) {
        ThreadLog& log = logs_[t];
        log.recorded = log.calls = log.failed = log.wrong = 0;
        log.cut = false;
        log.problem.clear();
        threads.emplace_back([this, &log, &caller = *callers[t], start, seed, t, &finished_mutex,
                              &finished_cv, &finished] {
            MemberPicker picker(seed * 1000003 + t + 1);
            const Clock::time_point deadline = start.get() + length_;
            std::string why;
            for (;;) {
                const std::size_t m = picker.next(members_);
                const auto t0 = Clock::now();
                const Verdict verdict = caller.call(m, why);
                const auto t1 = Clock::now();
                const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count();
                if (log.recorded < log.latency_ns.size()) {
                    log.latency_ns[log.recorded++] = static_cast<std::uint32_t>(
                        std::min<long long>(ns, std::numeric_limits<std::uint32_t>::max()));
                } else {
                    log.cut = true;
                }
                if (verdict == Verdict::ok) {
                    ++log.calls;
                } else {
                    ++(verdict == Verdict::failed ? log.failed : log.wrong);
                    if (log.problem.empty()) log.problem = why;
                }
                if (t1 >= deadline) {
                    log.end = t1;
                    {
                        std::lock_guard<std::mutex> lock(finished_mutex);
                        ++finished;
                    }
                    finished_cv.notify_one();
                    return;
                }
            }
        });
    }
    RoundResult result;
    const double server_before = server_cpu_seconds(admin);
    const double client_before = process_cpu_us();
    const Clock::time_point started = Clock::now();
    start_signal.set_value(started);
    {
        // A call that never returns cannot be joined or left behind; say
        // so and end the program rather than hang.
        std::unique_lock<std::mutex> lock(finished_mutex);
        if (!finished_cv.wait_until(lock, started + length_ + kHangBound,
                                    [&] { return finished == threads.size(); })) {
            std::cout.flush();
            std::cerr << "kelvane_threads: " << threads.size() - finished << " of " << threads.size()
                      << " threads still inside a call " << kHangBound.count()
                      << " s after the round ended: the calls hang\n";
            std::_Exit(1);
        }
    }
    for (auto& thread : threads) thread.join();
    result.client_us = process_cpu_us() - client_before;
    result.server_us = (server_cpu_seconds(admin) - server_before) * 1e6;
    Clock::time_point last_end = started;
    for (std::size_t t = 0; t < callers.size(); ++t) {
        const ThreadLog& log = logs_[t];
        result.calls += log.calls;
        result.failed += log.failed;
        result.wrong += log.wrong;
        result.latencies_cut = result.latencies_cut || log.cut;
        if (result.problem.empty()) result.problem = log.problem;
        last_end = std::max(last_end, log.end);
    }
    result.seconds = std::chrono::duration<double>(last_end - started).count();
    merge(result);
    return result;
}

void RoundRunner::merge(RoundResult& result) {
    merged_.clear();
    for (const auto& log : logs_) {
        merged_.insert(merged_.end(), log.latency_ns.begin(),
                       log.latency_ns.begin() + static_cast<std::ptrdiff_t>(log.recorded));
    }
    result.p50_us = percentile_us(merged_, 0.50);
    result.p99_us = percentile_us(merged_, 0.99);
}

}  // namespace kelvane_bench
