// measure.h -- the equality check and the timed rounds of one workload.
//
// A round runs one side alone for a while (or a fixed number of calls) and
// takes, per call, the time, the allocations, the heap peak and the system
// calls of that call only, with any set-up the workload needs between calls
// left outside. The server's own time is the CPU time of its main thread
// (INFO cpu) over the round: everything it did for the calls, reading and
// parsing their commands, queuing them in a transaction, running them and
// writing the replies.
#ifndef KELVANE_BENCH_MEASURE_H
#define KELVANE_BENCH_MEASURE_H

#include <cstdint>
#include <string>
#include <vector>

#include "syscall_counter.h"
#include "workload.h"

namespace kelvane_bench {

struct SideRound {
    std::uint64_t calls = 0;
    double seconds = 0;               // inside the calls only
    std::uint64_t allocations = 0;
    std::uint64_t syscalls = 0;
    std::int64_t peak_bytes = 0;      // highest heap growth during one call
    double server_usec = 0;
};

struct RoundOptions {
    double seconds = 0.4;             // per side and round
    std::uint64_t min_calls = 2;
    std::uint64_t fixed_calls = 0;    // when set, every round makes exactly this many calls
    bool markers = false;             // marker system calls around every call (strace check)
    int rounds = 7;
};

struct WorkloadResult {
    std::string name;
    double speed_target = 0;
    double server_target = 0;
    bool reports_peak = false;
    bool memory_target = false;
    std::string check_failure;        // "" when both sides returned the same data
    std::string call_failure;         // a call that failed during the rounds
    std::vector<SideRound> lib, raw;  // one entry per round
};

class Measurer {
public:
    Measurer(Sides& sides, const SyscallCounter& syscalls, RoundOptions options,
             std::string placement_tag);

    // Prepares the workload and runs its check calls on both sides from the
    // same state; the whole workload result, rounds included.
    WorkloadResult run(Workload& workload);

private:
    std::string check(Workload& workload);
    SideRound round(Workload& workload, Side side, std::uint64_t& next_call);

    Sides& sides_;
    const SyscallCounter& syscalls_;
    RoundOptions options_;
    std::string placement_tag_;
};

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_MEASURE_H
