// compare_main.cpp -- kelvane_compare: every measured libkelvane operation
// against raw hiredis doing the same native work, in one process, on one
// private redis-server, with client and server on one CPU and then on two.
//
// Per operation it first checks that both sides return the same data and
// refuses a ratio when they do not, then runs alternating timed rounds and
// prints medians: calls per second, server time, allocations, system calls
// and, for range reads, peak heap per call. Progress goes to standard error,
// tables to standard output. Exit status 1 when any operation's data differed
// or a call failed, 2 when the comparison could not run.
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "measure.h"
#include "options.h"
#include "raw_connection.h"
#include "report.h"
#include "server_process.h"
#include "syscall_counter.h"
#include "workload.h"

using namespace kelvane_bench;

namespace {

struct Placement {
    std::string tag;
    int client_cpu;
    int server_cpu;
    bool targets_apply;
};

struct MmDeleter {
    void operator()(kv_mm* mm) const { kv_mm_destroy(mm); }
};
struct ClientDeleter {
    void operator()(kv_client* c) const { kv_client_destroy(c); }
};

// Shows that the allocation counter sees both libraries: hiredis allocates
// a context even for a connection that fails, and libkelvane allocates its
// memory manager and client.
// Live bytes that come back to where they started show that every free
// went through the same counter as its allocation.
struct AllocProbe {
    std::uint64_t hiredis = 0;
    std::uint64_t libkelvane = 0;
    bool balanced = false;
};

AllocProbe probe_allocations() {
    AllocProbe probe;
    const AllocTotals before = alloc_totals();
    const auto start = before.allocations;
    redisContext* c = redisConnectUnix("/nonexistent/kelvane-compare-probe");
    if (c) redisFree(c);
    const auto after_hiredis = alloc_totals().allocations;
    kv_mm* mm = kv_mm_create(nullptr, nullptr, nullptr, 0);
    kv_client* client = kv_client_create(1, 1, mm, 1);
    kv_client_destroy(client);
    kv_mm_destroy(mm);
    probe.hiredis = after_hiredis - start;
    probe.libkelvane = alloc_totals().allocations - after_hiredis;
    probe.balanced = alloc_totals().live_bytes == before.live_bytes;
    return probe;
}

std::vector<std::unique_ptr<Workload>> selected_workloads(const std::string& only) {
    std::vector<std::unique_ptr<Workload>> all;
    for (auto* make : {write_workloads, point_read_workloads, range_workloads, removal_workloads}) {
        for (auto& w : make()) {
            if (only.empty() || w->name().find(only) != std::string::npos) all.push_back(std::move(w));
        }
    }
    return all;
}

std::string placement_title(const Placement& p, const ServerProcess& server) {
    const std::string where =
        p.client_cpu == p.server_cpu
            ? "one CPU: client and server both on CPU " + std::to_string(p.client_cpu)
            : "two CPUs: client on CPU " + std::to_string(p.client_cpu) + ", server on CPU " +
                  std::to_string(p.server_cpu);
    return where + " (server allowed on CPUs " + server.cpus() + ")" +
           (p.targets_apply ? "" : " - for information, targets are judged on one CPU");
}

PlacementResult run_placement(const Placement& p, std::vector<std::unique_ptr<Workload>>& workloads,
                              const Options& options, const SyscallCounter& syscalls,
                              bool& header_due,
                              const std::function<std::string(const std::string&)>& header) {
    ServerProcess server(p.server_cpu);
    if (!pin_to_cpu(p.client_cpu)) {
        throw std::runtime_error("cannot pin the client to CPU " + std::to_string(p.client_cpu));
    }
    std::unique_ptr<kv_mm, MmDeleter> mm(kv_mm_create(nullptr, nullptr, nullptr, 0));
    // A long command timeout: a 100,000-member read on a loaded machine
    // must not turn into KV_TIMEOUT.
    std::unique_ptr<kv_client, ClientDeleter> client(kv_client_create(2, 60, mm.get(), 2));
    if (!mm || !client) throw std::runtime_error("cannot create the kelvane client");
    const int32_t added =
        kv_server_add(client.get(), "127.0.0.1", static_cast<uint32_t>(server.port()), nullptr);
    if (added != KV_SUCCESS) throw std::runtime_error("kv_server_add: " + status_text(added));
    RawConnection raw(server.port());
    RawConnection admin(server.port());
    if (header_due) {
        std::cout << header(server_version(admin));
        header_due = false;
    }
    Sides sides{client.get(), mm.get(), raw, admin};
    Measurer measurer(sides, syscalls, options.rounds, p.tag);
    PlacementResult result{placement_title(p, server), p.targets_apply, {}};
    for (auto& w : workloads) {
        std::cerr << "kelvane_compare: " << p.tag << ": " << w->name() << "\n";
        result.rows.push_back(measurer.run(*w));
    }
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        options = parse_options(argc, argv);
    } catch (const std::invalid_argument& e) {
        std::cerr << "kelvane_compare: " << e.what() << "\n" << usage();
        return 2;
    }
    if (options.help) {
        std::cout << usage();
        return 0;
    }

    const AllocProbe probe = probe_allocations();
    SyscallCounter syscalls;
    syscalls.calibrate();
    ReportOptions report;
    report.markdown = options.markdown;
    report.syscalls_counted = syscalls.available();
    report.allocations_counted = probe.hiredis > 0 && probe.libkelvane > 0 && probe.balanced;

    const int cpu_a = nth_allowed_cpu(0);
    const int cpu_b = nth_allowed_cpu(1);
    std::vector<Placement> placements;
    if (options.placement != "two") placements.push_back({"one-cpu", cpu_a, cpu_a, true});
    if (options.placement != "one") {
        if (cpu_b < 0) {
            std::cerr << "kelvane_compare: only one CPU allowed; no two-CPU placement\n";
        } else {
            placements.push_back({"two-cpu", cpu_a, cpu_b, false});
        }
    }
    auto workloads = selected_workloads(options.only);
    if (workloads.empty()) {
        std::cerr << "kelvane_compare: no operation matches " << options.only << "\n";
        return 2;
    }

    const RoundOptions& r = options.rounds;
    const std::string line_end = options.markdown ? "  \n" : "\n";
    const std::string hiredis = std::to_string(HIREDIS_MAJOR) + "." + std::to_string(HIREDIS_MINOR) +
                                "." + std::to_string(HIREDIS_PATCH);
    std::string details;
    details += "rounds: " + std::to_string(r.rounds) + " per operation, " +
               (r.fixed_calls ? std::to_string(r.fixed_calls) + " calls"
                              : std::to_string(static_cast<int>(r.seconds * 1000)) + " ms (at least " +
                                    std::to_string(r.min_calls) + " calls)") +
               " per side per round; library and raw alternate, library first in even rounds;"
               " medians over rounds" + line_end;
    details += "allocations: " +
               (report.allocations_counted
                    ? "counted in-process; the counter saw " + std::to_string(probe.hiredis) +
                          " in a hiredis connect and " + std::to_string(probe.libkelvane) +
                          " in libkelvane's kv_mm_create + kv_client_create, all freed again"
                    : std::string("NOT counted: the counter missed hiredis's or libkelvane's"
                                  " allocations or frees")) +
               line_end;
    details += "system calls: " +
               (report.syscalls_counted
                    ? "perf counter on raw_syscalls:sys_enter for the client thread (window overhead " +
                          std::to_string(syscalls.overhead()) + ", checked on 100 getppid calls)"
                    : "not counted: " + syscalls.why_unavailable()) +
               line_end;
    details += "machine: CPUs allowed " + allowed_cpus_text() + ", load average at start " +
               load_average() + line_end;
    const auto header = [&](const std::string& redis_version) {
        return "kelvane_compare: libkelvane.so.1 against raw hiredis " + hiredis +
               " on redis-server " + redis_version + line_end + details + "\n";
    };

    bool header_due = true;
    int failed = 0;
    for (const auto& p : placements) {
        PlacementResult result;
        try {
            result = run_placement(p, workloads, options, syscalls, header_due, header);
        } catch (const std::exception& e) {
            std::cerr << "kelvane_compare: " << e.what() << "\n";
            return 2;
        }
        failed += print_placement(std::cout, result, report);
        std::cout.flush();
    }
    print_legend(std::cout, report);
    return failed > 0 ? 1 : 0;
}
