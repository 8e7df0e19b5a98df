// measure.cpp -- checks and rounds.
#include "measure.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "alloc_counter.h"

namespace kelvane_bench {
namespace {

using Clock = std::chrono::steady_clock;

struct CallFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

const char* side_name(Side side) { return side == Side::lib ? "lib" : "raw"; }

// The first line where two dumps part, for the report.
std::string first_line_apart(const std::string& lib, const std::string& raw) {
    size_t at = 0;
    while (at < lib.size() && at < raw.size() && lib[at] == raw[at]) ++at;
    const auto line_at = [at](const std::string& s) {
        const size_t start = s.rfind('\n', at == 0 ? 0 : at - 1);
        const size_t from = start == std::string::npos || at == 0 ? 0 : start + 1;
        return s.substr(from, s.find('\n', from) - from);
    };
    return "\"" + line_at(lib) + "\" vs \"" + line_at(raw) + "\"";
}

}  // namespace

Measurer::Measurer(Sides& sides, const SyscallCounter& syscalls, RoundOptions options,
                   std::string placement_tag)
    : sides_(sides),
      syscalls_(syscalls),
      options_(options),
      placement_tag_(std::move(placement_tag)) {}

WorkloadResult Measurer::run(Workload& workload) {
    WorkloadResult result;
    result.name = workload.name();
    result.speed_target = workload.speed_target();
    result.server_target = workload.server_target();
    result.reports_peak = workload.reports_peak();
    result.memory_target = workload.has_memory_target();
    try {
        result.check_failure = check(workload);
    } catch (const std::exception& e) {
        result.check_failure = std::string("check could not run: ") + e.what();
    }
    if (!result.check_failure.empty()) return result;
    // The rounds go on where the check stopped, so writes keep moving
    // through their cycles.
    std::uint64_t next_call[2] = {static_cast<std::uint64_t>(workload.check_calls()),
                                  static_cast<std::uint64_t>(workload.check_calls())};
    try {
        for (int r = 0; r < options_.rounds; ++r) {
            // Alternating which side goes first cancels slow drifts in the
            // machine's load.
            const Side first = r % 2 == 0 ? Side::lib : Side::raw;
            const Side second = r % 2 == 0 ? Side::raw : Side::lib;
            for (Side side : {first, second}) {
                auto& rounds = side == Side::lib ? result.lib : result.raw;
                rounds.push_back(round(workload, side, next_call[side == Side::lib ? 0 : 1]));
            }
        }
    } catch (const std::exception& e) {
        result.call_failure = e.what();
    }
    return result;
}

std::string Measurer::check(Workload& workload) {
    workload.prepare(sides_);
    for (int i = 0; i < workload.check_calls(); ++i) {
        CallResult lib, raw;
        workload.before_call(sides_, Side::lib, static_cast<std::uint64_t>(i));
        std::string failure = workload.call(sides_, Side::lib, static_cast<std::uint64_t>(i), &lib);
        if (!failure.empty()) return "library call failed: " + failure;
        workload.before_call(sides_, Side::raw, static_cast<std::uint64_t>(i));
        failure = workload.call(sides_, Side::raw, static_cast<std::uint64_t>(i), &raw);
        if (!failure.empty()) return "raw call failed: " + failure;
        if (!(lib == raw)) {
            return "call " + std::to_string(i) + ": " + first_difference(lib, raw);
        }
    }
    if (workload.compares_end_state()) {
        const WorkloadKeys& k = workload.keys();
        const std::string lib = dump_sorted_set(sides_.admin, k.lib_main, k.lib_values);
        const std::string raw = dump_sorted_set(sides_.admin, k.raw_main, k.raw_values);
        if (lib != raw) return "end states differ: " + first_line_apart(lib, raw);
    }
    return "";
}

SideRound Measurer::round(Workload& workload, Side side, std::uint64_t& next_call) {
    const std::string label = placement_tag_ + "/" + workload.name() + "/" + side_name(side);
    const std::string begin_mark = "kvmark B " + label;
    const std::string end_mark = "kvmark E " + label;
    const std::uint64_t window_overhead = syscalls_.overhead() + (options_.markers ? 2 : 0);
    SideRound r;
    const double cpu_before = server_cpu_seconds(sides_.admin);
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(options_.seconds));
    for (;;) {
        if (options_.fixed_calls > 0) {
            if (r.calls == options_.fixed_calls) break;
        } else if (r.calls >= options_.min_calls && Clock::now() >= deadline) {
            break;
        }
        const std::uint64_t i = next_call++;
        workload.before_call(sides_, side, i);
        const std::uint64_t sys_before = syscalls_.read();
        if (options_.markers) syscall_marker(begin_mark);
        const AllocTotals alloc_before = alloc_totals();
        reset_peak();
        const auto t0 = Clock::now();
        const std::string failure = workload.call(sides_, side, i, nullptr);
        const auto t1 = Clock::now();
        const AllocTotals alloc_after = alloc_totals();
        if (options_.markers) syscall_marker(end_mark);
        const std::uint64_t sys_after = syscalls_.read();
        if (!failure.empty()) throw CallFailed(std::string(side_name(side)) + ": " + failure);
        ++r.calls;
        r.seconds += std::chrono::duration<double>(t1 - t0).count();
        r.allocations += alloc_after.allocations - alloc_before.allocations;
        if (syscalls_.available()) r.syscalls += sys_after - sys_before - window_overhead;
        r.peak_bytes = std::max(r.peak_bytes, alloc_after.peak_bytes - alloc_before.live_bytes);
    }
    r.server_usec = (server_cpu_seconds(sides_.admin) - cpu_before) * 1e6;
    return r;
}

}  // namespace kelvane_bench
