// report.cpp -- medians, targets and the table in plain text or Markdown.
#include "report.h"

#include <algorithm>
#include <cstdio>
#include <functional>

namespace kelvane_bench {
namespace {

// Targets with client and server on one CPU.
constexpr double kExtraSyscalls = 1.0;      // system calls per call <= raw + 1
constexpr double kPeakFactor = 1.2;         // peak heap of the largest read <= 1.2x raw

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t mid = v.size() / 2;
    return v.size() % 2 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

double median_of(const std::vector<SideRound>& rounds,
                 const std::function<double(const SideRound&)>& per_round) {
    std::vector<double> v;
    for (const auto& r : rounds) v.push_back(per_round(r));
    return median(v);
}

double per_call(double total, std::uint64_t calls) {
    return calls ? total / static_cast<double>(calls) : 0;
}

double rate(const SideRound& r) { return r.seconds > 0 ? static_cast<double>(r.calls) / r.seconds : 0; }

std::string fmt(const char* format, double x) {
    char text[64];
    std::snprintf(text, sizeof text, format, x);
    return text;
}

// Small numbers keep a decimal; large ones do not need it.
std::string number(double x) { return fmt(x >= 100 ? "%.0f" : "%.1f", x); }

std::string bytes(double b) {
    if (b >= 1024.0 * 1024.0) return fmt("%.1f MiB", b / (1024.0 * 1024.0));
    if (b >= 1024.0) return fmt("%.1f KiB", b / 1024.0);
    return fmt("%.0f B", b);
}

using Row = std::vector<std::string>;

const Row kHeader = {"operation",   "lib calls/s", "raw calls/s", "lib/raw",    "need",
                     "srv us lib",  "srv us raw",  "allocs lib",  "allocs raw", "sys lib",
                     "sys raw",     "peak lib",    "peak raw",    "targets"};

Row summary_row(const WorkloadResult& w, bool targets_apply, const ReportOptions& options,
                std::vector<std::string>& notes) {
    Row row(kHeader.size(), "-");
    row[0] = w.name;
    row[4] = fmt(">=%.2f", w.speed_target);
    if (!w.check_failure.empty() || !w.call_failure.empty()) {
        notes.push_back(w.name + ": " +
                        (w.check_failure.empty() ? "call failed: " + w.call_failure
                                                 : "results differ: " + w.check_failure));
        row[13] = (w.check_failure.empty() ? "FAILED" : "DIFFERS") + std::string(" [") +
                  std::to_string(notes.size()) + "]";
        return row;
    }
    std::vector<double> ratios;
    for (size_t r = 0; r < w.lib.size() && r < w.raw.size(); ++r) {
        const double raw_rate = rate(w.raw[r]);
        if (raw_rate > 0) ratios.push_back(rate(w.lib[r]) / raw_rate);
    }
    const double ratio = median(ratios);
    const auto srv = [](const SideRound& r) { return per_call(static_cast<double>(r.server_usec), r.calls); };
    const auto allocs = [](const SideRound& r) { return per_call(static_cast<double>(r.allocations), r.calls); };
    const auto sys = [](const SideRound& r) { return per_call(static_cast<double>(r.syscalls), r.calls); };
    const auto peak = [](const SideRound& r) { return static_cast<double>(r.peak_bytes); };
    const double lib_srv = median_of(w.lib, srv), raw_srv = median_of(w.raw, srv);
    const double lib_sys = median_of(w.lib, sys), raw_sys = median_of(w.raw, sys);
    const double lib_peak = median_of(w.lib, peak), raw_peak = median_of(w.raw, peak);
    row[1] = fmt("%.0f", median_of(w.lib, rate));
    row[2] = fmt("%.0f", median_of(w.raw, rate));
    row[3] = fmt("%.2f", ratio);
    row[5] = number(lib_srv);
    row[6] = number(raw_srv);
    if (options.allocations_counted) {
        row[7] = number(median_of(w.lib, allocs));
        row[8] = number(median_of(w.raw, allocs));
    }
    if (options.syscalls_counted) {
        row[9] = number(lib_sys);
        row[10] = number(raw_sys);
    }
    if (w.reports_peak && options.allocations_counted) {
        row[11] = bytes(lib_peak);
        row[12] = bytes(raw_peak);
    }
    if (!targets_apply) return row;
    std::vector<std::string> missed;
    if (ratio < w.speed_target) missed.push_back("speed");
    if (lib_srv > w.server_target * raw_srv) missed.push_back("server");
    if (options.syscalls_counted && lib_sys > raw_sys + kExtraSyscalls) missed.push_back("syscalls");
    if (w.memory_target && options.allocations_counted && lib_peak > kPeakFactor * raw_peak) {
        missed.push_back("memory");
    }
    if (missed.empty()) {
        row[13] = "PASS";
    } else {
        row[13] = "MISS:";
        for (size_t k = 0; k < missed.size(); ++k) row[13] += (k ? "," : " ") + missed[k];
    }
    return row;
}

void print_rows(std::ostream& out, const std::vector<Row>& rows, bool markdown) {
    if (markdown) {
        for (size_t r = 0; r < rows.size(); ++r) {
            out << "|";
            for (const auto& cell : rows[r]) out << " " << cell << " |";
            out << "\n";
            if (r == 0) {
                out << "|";
                for (size_t c = 0; c < rows[r].size(); ++c) out << (c == 0 || c == 13 ? "---|" : "---:|");
                out << "\n";
            }
        }
        return;
    }
    std::vector<size_t> width(kHeader.size(), 0);
    for (const auto& row : rows) {
        for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t c = 0; c < row.size(); ++c) {
            const std::string pad(width[c] - row[c].size(), ' ');
            // Names and verdicts read left to right, numbers line up right.
            line += (c == 0 || c == 13) ? row[c] + pad : pad + row[c];
            if (c + 1 < row.size()) line += "  ";
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out << line << "\n";
    }
}

}  // namespace

int print_placement(std::ostream& out, const PlacementResult& placement,
                    const ReportOptions& options) {
    out << (options.markdown ? "### " : "== ") << placement.title
        << (options.markdown ? "\n\n" : " ==\n");
    std::vector<Row> rows = {kHeader};
    std::vector<std::string> notes;
    int failed = 0;
    for (const auto& w : placement.rows) {
        rows.push_back(summary_row(w, placement.targets_apply, options, notes));
        if (!w.check_failure.empty() || !w.call_failure.empty()) ++failed;
    }
    print_rows(out, rows, options.markdown);
    if (!notes.empty()) out << "\n";
    for (size_t k = 0; k < notes.size(); ++k) {
        out << (options.markdown ? "" : "  ") << "[" << k + 1 << "] " << notes[k]
            << (options.markdown ? "  \n" : "\n");
    }
    out << "\n";
    return failed;
}

void print_legend(std::ostream& out, const ReportOptions& options) {
    const char* item = options.markdown ? "- " : "  ";
    out << (options.markdown ? "Columns:\n\n" : "Columns:\n");
    out << item << "lib calls/s, raw calls/s: medians over rounds of calls per second of the calls alone;"
        << " lib/raw: median over rounds of the ratio of the two\n";
    out << item << "srv us: server CPU microseconds per call (its main thread, INFO cpu),"
        << " whatever commands the side sent\n";
    out << item << "allocs: malloc/calloc/realloc calls per call in this process,"
        << " hiredis and libkelvane included\n";
    out << item << "sys: system calls per call made by the client thread"
        << (options.syscalls_counted ? "" : " (not counted on this machine)") << "\n";
    out << item << "peak: highest heap growth during one range read, results included\n";
    out << item << "targets (one CPU only): speed lib/raw >= need; srv lib <= "
        << "1.3x raw for reads, 2x for writes; sys lib <= raw + " << kExtraSyscalls
        << "; peak lib <= " << kPeakFactor << "x raw for the 100,000-member reads\n";
}

}  // namespace kelvane_bench
