// threads_report.h -- kelvane_threads' tables: per thread count, each way's
// medians over rounds and its ratios to raw hiredis; a summary over thread
// counts; and whether the shared client meets its target at 16 threads.
#ifndef KELVANE_BENCH_THREADS_REPORT_H
#define KELVANE_BENCH_THREADS_REPORT_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "point_calls.h"
#include "thread_rounds.h"

namespace kelvane_bench {

struct WayRounds {
    Way way;
    std::vector<RoundResult> rounds;
};

struct ThreadCountResult {
    int threads = 0;
    std::vector<WayRounds> ways;  // in Way order
};

// One operation on one CPU placement.
struct OpResult {
    PointOp op = PointOp::zscore;
    std::string placement;          // "split: server on CPU 0, client threads on CPU 1"
    std::string check_failure;      // the check before measuring: "" when both sides agreed
    std::vector<ThreadCountResult> counts;
};

// Prints the tables of one operation; returns how many calls failed or
// answered wrong (1 at least when the check failed).
std::uint64_t print_op(std::ostream& out, const OpResult& result, bool markdown);

// What the columns mean and how the target reads.
void print_threads_legend(std::ostream& out, bool markdown);

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_THREADS_REPORT_H
