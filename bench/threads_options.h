// threads_options.h -- kelvane_threads' command line.
#ifndef KELVANE_BENCH_THREADS_OPTIONS_H
#define KELVANE_BENCH_THREADS_OPTIONS_H

#include <string>
#include <vector>

#include "point_calls.h"
#include "thread_rounds.h"

namespace kelvane_bench {

// Where the server and the client threads run.
enum class Cpus {
    split,  // server on the first CPU this process may use, client threads on the second
    one,    // both on the first
    none,   // nothing pinned
};
const char* cpus_name(Cpus cpus);

struct ThreadsOptions {
    std::vector<int> threads = {1, 2, 4, 8, 16, 64};
    std::vector<Way> ways = {Way::shared, Way::per_thread, Way::raw};
    std::vector<PointOp> ops = {PointOp::zscore};
    std::vector<Cpus> cpus = {Cpus::split};
    int rounds = 5;
    double seconds = 1.0;  // per way and round
    bool markdown = false;
    bool help = false;
};

// Throws std::invalid_argument with a message for a bad command line.
ThreadsOptions parse_threads_options(int argc, char** argv);
const char* threads_usage();

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_THREADS_OPTIONS_H
