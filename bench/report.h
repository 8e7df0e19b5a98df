// report.h -- the comparison table: medians over rounds per operation, and
// the targets the library is held to when client and server share one CPU.
#ifndef KELVANE_BENCH_REPORT_H
#define KELVANE_BENCH_REPORT_H

#include <ostream>
#include <string>
#include <vector>

#include "measure.h"

namespace kelvane_bench {

struct PlacementResult {
    std::string title;         // which CPUs client and server ran on
    bool targets_apply;        // targets are judged with both on one CPU
    std::vector<WorkloadResult> rows;
};

struct ReportOptions {
    bool markdown = false;
    bool syscalls_counted = false;
    bool allocations_counted = true;
};

// Prints one table; returns the number of rows whose data differed or whose
// calls failed.
int print_placement(std::ostream& out, const PlacementResult& placement,
                    const ReportOptions& options);

// What the columns mean and how the targets read.
void print_legend(std::ostream& out, const ReportOptions& options);

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_REPORT_H
