// threads_main.cpp -- kelvane_threads: a point read made by many threads at
// once, three ways side by side, on one private redis-server: one kv_client
// shared by all the threads, one kv_client per thread, and one raw hiredis
// connection per thread doing the same native work.
//
// It fills a set of 1,000 members with values through the library, checks
// that the library and raw hiredis read every member alike, then for each
// thread count runs rounds in which the ways take turns, and prints medians:
// calls per second of all threads together, the median and 99th-percentile
// latency of one call, the CPU per call of server and client, failed and
// wrong answers, and the ratios to raw. Progress goes to standard error,
// tables to standard output. Exit status 1 when a call failed, answered
// wrong or hung, or the check found a difference; 2 when it could not run.
#include <sched.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "data_set.h"
#include "point_calls.h"
#include "raw_connection.h"
#include "server_process.h"
#include "thread_rounds.h"
#include "threads_options.h"
#include "threads_report.h"
#include "workload.h"

using namespace kelvane_bench;

namespace {

constexpr std::size_t kMembers = 1000;

struct MmDeleter {
    void operator()(kv_mm* mm) const { kv_mm_destroy(mm); }
};
struct ClientDeleter {
    void operator()(kv_client* c) const { kv_client_destroy(c); }
};
using ClientPtr = std::unique_ptr<kv_client, ClientDeleter>;

// A client of the private server, connected. The command timeout is
// generous: 64 threads on a busy machine must not turn into KV_TIMEOUT.
ClientPtr connected_client(kv_mm* mm, int port) {
    ClientPtr client(kv_client_create(2, 10, mm, 2));
    if (!client) throw std::runtime_error("cannot create a kv_client");
    const int32_t added = kv_server_add(client.get(), "127.0.0.1", static_cast<uint32_t>(port), nullptr);
    if (added != KV_SUCCESS) throw std::runtime_error("kv_server_add: " + status_text(added));
    return client;
}

// Where server and client threads run, as CPU numbers; -1: not pinned.
struct Placement {
    Cpus cpus;
    int server_cpu;
    int client_cpu;
};

Placement placement_of(Cpus cpus) {
    const int first = nth_allowed_cpu(0), second = nth_allowed_cpu(1);
    switch (cpus) {
        case Cpus::split:
            if (second < 0) {
                throw std::runtime_error("--cpus split needs two CPUs; this process may use one");
            }
            return {cpus, first, second};
        case Cpus::one: return {cpus, first, first};
        case Cpus::none: return {cpus, -1, -1};
    }
    throw std::logic_error("unknown placement");
}

// The placement as the header gives it, before any server runs.
std::string placement_words(const Placement& p) {
    switch (p.cpus) {
        case Cpus::split:
            return "split (server on CPU " + std::to_string(p.server_cpu) + ", client threads on CPU " +
                   std::to_string(p.client_cpu) + ")";
        case Cpus::one:
            return "one (server and client threads on CPU " + std::to_string(p.client_cpu) + ")";
        case Cpus::none:
            return "none (server and client threads unpinned, on CPUs " + allowed_cpus_text() + ")";
    }
    return "?";
}

// The placement as a table's title gives it, the server's CPUs read back
// from the kernel.
std::string placement_title(const Placement& p, const ServerProcess& server) {
    switch (p.cpus) {
        case Cpus::split:
            return "split: server on CPU " + server.cpus() + ", client threads on CPU " +
                   std::to_string(p.client_cpu);
        case Cpus::one: return "one: server and client threads on CPU " + server.cpus();
        case Cpus::none: return "none: server and client threads unpinned, on CPUs " + server.cpus();
    }
    return "?";
}

// Reads every member once through the library and through raw hiredis;
// "" when both read what the member holds.
std::string check_both_read_alike(PointOp op, const PointSet& set, kv_client* client, kv_mm* mm,
                                  int port) {
    auto lib = library_caller(op, set, client, mm);
    auto raw = raw_caller(op, set, port);
    std::string why;
    for (std::size_t m = 0; m < set.data.members.size(); ++m) {
        if (lib->call(m, why) != Verdict::ok) return "library: " + why;
        if (raw->call(m, why) != Verdict::ok) return "raw: " + why;
    }
    return "";
}

// Everything one run of the thread counts shares.
struct Bench {
    const ThreadsOptions& options;
    const PointSet& set;
    kv_mm* mm;
    int port;
    RawConnection& admin;
    std::string tag;  // for progress lines
};

// Every way for one thread count, its rounds taking turns.
ThreadCountResult measure_count(const Bench& b, PointOp op, int threads) {
    const auto n = static_cast<std::size_t>(threads);
    ThreadCountResult result;
    result.threads = threads;
    ClientPtr shared;
    std::vector<ClientPtr> own;
    std::vector<std::vector<std::unique_ptr<PointCaller>>> callers;
    for (Way way : b.options.ways) {
        result.ways.push_back({way, {}});
        callers.emplace_back();
        if (way == Way::shared) shared = connected_client(b.mm, b.port);
        for (std::size_t t = 0; t < n; ++t) {
            if (way == Way::shared) {
                callers.back().push_back(library_caller(op, b.set, shared.get(), b.mm));
            } else if (way == Way::per_thread) {
                own.push_back(connected_client(b.mm, b.port));
                callers.back().push_back(library_caller(op, b.set, own.back().get(), b.mm));
            } else {
                callers.back().push_back(raw_caller(op, b.set, b.port));
            }
        }
    }
    // One untimed call through every caller first: whatever a client or a
    // connection does once (a first command on a node) stays out of the
    // rounds. What it answers, the rounds find again.
    std::string ignored;
    for (auto& way_callers : callers) {
        for (auto& caller : way_callers) caller->call(0, ignored);
    }
    RoundRunner runner(n, b.options.seconds, b.set.data.members.size());
    const std::size_t ways = b.options.ways.size();
    for (int r = 0; r < b.options.rounds; ++r) {
        // Each round starts with another way, so that slow drifts in the
        // machine's load fall on all of them alike.
        for (std::size_t k = 0; k < ways; ++k) {
            const std::size_t w = (static_cast<std::size_t>(r) + k) % ways;
            std::cerr << "kelvane_threads: " << b.tag << ": " << op_name(op) << ": " << threads
                      << (threads == 1 ? " thread" : " threads") << ": round " << r + 1 << "/"
                      << b.options.rounds << ": " << way_name(result.ways[w].way) << "\n";
            const auto seed = static_cast<std::uint64_t>(r);
            result.ways[w].rounds.push_back(runner.run(callers[w], b.admin, seed));
        }
    }
    return result;
}

// One placement: its own server, the set filled, then every operation.
// Threads inherit the mask of the thread that makes them: the client
// threads, and any the library starts, follow the main thread's.
std::uint64_t run_placement(const ThreadsOptions& options, const Placement& p, bool& header_due,
                            const std::string& header) {
    ServerProcess server(p.server_cpu);
    if (p.client_cpu >= 0 && !pin_to_cpu(p.client_cpu)) {
        throw std::runtime_error("cannot pin the client to CPU " + std::to_string(p.client_cpu));
    }
    std::unique_ptr<kv_mm, MmDeleter> mm(kv_mm_create(nullptr, nullptr, nullptr, 0));
    if (!mm) throw std::runtime_error("cannot create a memory manager");
    ClientPtr filler = connected_client(mm.get(), server.port());
    RawConnection admin(server.port());
    if (header_due) {
        std::cout << "kelvane_threads: libkelvane.so.1 " << kv_version() << " on redis-server "
                  << server_version(admin) << header;
        header_due = false;
    }
    const PointSet set = make_point_set(kMembers);
    Sides sides{filler.get(), mm.get(), admin, admin};
    clear_both(sides, {set.lib_key, "", "", set.raw_main, set.raw_values});
    fill_lib(sides, set.lib_key, set.data);
    fill_native(admin, set.raw_main, set.raw_values, set.data);

    const Bench bench{options, set, mm.get(), server.port(), admin, cpus_name(p.cpus)};
    std::uint64_t bad = 0;
    for (PointOp op : options.ops) {
        OpResult result;
        result.op = op;
        result.placement = placement_title(p, server);
        result.check_failure = check_both_read_alike(op, set, filler.get(), mm.get(), server.port());
        if (result.check_failure.empty()) {
            for (int threads : options.threads) result.counts.push_back(measure_count(bench, op, threads));
        }
        bad += print_op(std::cout, result, options.markdown);
        std::cout.flush();
    }
    return bad;
}

}  // namespace

int main(int argc, char** argv) {
    ThreadsOptions options;
    try {
        options = parse_threads_options(argc, argv);
    } catch (const std::invalid_argument& e) {
        std::cerr << "kelvane_threads: " << e.what() << "\n" << threads_usage();
        return 2;
    }
    if (options.help) {
        std::cout << threads_usage();
        return 0;
    }
    cpu_set_t start_mask;
    if (sched_getaffinity(0, sizeof start_mask, &start_mask) != 0) {
        std::cerr << "kelvane_threads: cannot read the CPUs this process may use\n";
        return 2;
    }

    std::vector<Placement> placements;
    try {
        for (Cpus c : options.cpus) placements.push_back(placement_of(c));
    } catch (const std::exception& e) {
        std::cerr << "kelvane_threads: " << e.what() << "\n";
        return 2;
    }

    const std::string line_end = options.markdown ? "  \n" : "\n";
    std::string threads, ways, where;
    for (int n : options.threads) threads += (threads.empty() ? "" : ",") + std::to_string(n);
    for (Way w : options.ways) ways += (ways.empty() ? "" : ", ") + std::string(way_name(w));
    for (const auto& p : placements) where += (where.empty() ? "" : "; ") + placement_words(p);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g", options.seconds);
    const std::string header =
        ", against raw hiredis " + std::to_string(HIREDIS_MAJOR) + "." + std::to_string(HIREDIS_MINOR) +
        "." + std::to_string(HIREDIS_PATCH) + line_end + "threads: " + threads + "; ways: " + ways +
        line_end + "placement: " + where + line_end + "rounds: " + std::to_string(options.rounds) +
        " per thread count, " + seconds +
        " s per way per round; the ways take turns, another first in each round; medians over rounds" +
        line_end + "machine: CPUs allowed " + allowed_cpus_text() + ", load average at start " +
        load_average() + line_end + "\n";

    bool header_due = true;
    std::uint64_t bad = 0;
    for (const auto& p : placements) {
        try {
            // Every placement starts from the CPUs the program was given.
            if (sched_setaffinity(0, sizeof start_mask, &start_mask) != 0) {
                throw std::runtime_error("cannot restore the CPUs this process started with");
            }
            bad += run_placement(options, p, header_due, header);
        } catch (const std::exception& e) {
            std::cerr << "kelvane_threads: " << e.what() << "\n";
            return 2;
        }
    }
    print_threads_legend(std::cout, options.markdown);
    return bad > 0 ? 1 : 0;
}
