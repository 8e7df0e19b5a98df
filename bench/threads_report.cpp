// threads_report.cpp -- medians, ratios, the target and the tables in plain
// text or Markdown.
#include "threads_report.h"

#include <algorithm>
#include <cstdio>
#include <functional>

namespace kelvane_bench {
namespace {

// The shared client's target, with 16 threads: at least twice the calls per
// second of 16 raw hiredis connections, and a 99th percentile no worse.
constexpr int kTargetThreads = 16;
constexpr double kTargetRate = 2.0;
constexpr double kTargetP99 = 1.0;

using Row = std::vector<std::string>;
using PerRound = std::function<double(const RoundResult&)>;

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const std::size_t mid = v.size() / 2;
    return v.size() % 2 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

double median_of(const WayRounds& w, const PerRound& per_round) {
    std::vector<double> v;
    for (const auto& r : w.rounds) v.push_back(per_round(r));
    return median(v);
}

// The median over rounds of this way's figure divided by raw's in the same
// round, so that a round the whole machine was slow in cancels out.
double median_ratio(const WayRounds& w, const WayRounds& raw, const PerRound& per_round) {
    std::vector<double> v;
    for (std::size_t r = 0; r < w.rounds.size() && r < raw.rounds.size(); ++r) {
        const double base = per_round(raw.rounds[r]);
        if (base > 0) v.push_back(per_round(w.rounds[r]) / base);
    }
    return median(v);
}

const PerRound kRate = [](const RoundResult& r) { return r.rate(); };
const PerRound kP50 = [](const RoundResult& r) { return r.p50_us; };
const PerRound kP99 = [](const RoundResult& r) { return r.p99_us; };
const PerRound kServerPerCall = [](const RoundResult& r) {
    return r.calls ? r.server_us / static_cast<double>(r.calls) : 0;
};
const PerRound kClientPerCall = [](const RoundResult& r) {
    return r.calls ? r.client_us / static_cast<double>(r.calls) : 0;
};

std::string fmt(const char* format, double x) {
    char text[64];
    std::snprintf(text, sizeof text, format, x);
    return text;
}

// Small numbers keep a decimal; large ones do not need it.
std::string number(double x) { return fmt(x >= 100 ? "%.0f" : "%.1f", x); }

const WayRounds* find_way(const ThreadCountResult& c, Way way) {
    for (const auto& w : c.ways) {
        if (w.way == way) return &w;
    }
    return nullptr;
}

std::uint64_t bad_calls(const WayRounds& w) {
    std::uint64_t n = 0;
    for (const auto& r : w.rounds) n += r.failed + r.wrong;
    return n;
}

void print_rows(std::ostream& out, const std::vector<Row>& rows, bool markdown) {
    if (rows.empty()) return;
    if (markdown) {
        for (std::size_t r = 0; r < rows.size(); ++r) {
            out << "|";
            for (const auto& cell : rows[r]) out << " " << cell << " |";
            out << "\n";
            if (r == 0) {
                out << "|";
                for (std::size_t c = 0; c < rows[r].size(); ++c) out << (c == 0 ? "---|" : "---:|");
                out << "\n";
            }
        }
        out << "\n";
        return;
    }
    std::vector<std::size_t> width(rows[0].size(), 0);
    for (const auto& row : rows) {
        for (std::size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t c = 0; c < row.size(); ++c) {
            const std::string pad(width[c] - row[c].size(), ' ');
            // Names read left to right, numbers line up right.
            line += c == 0 ? row[c] + pad : pad + row[c];
            if (c + 1 < row.size()) line += "  ";
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out << line << "\n";
    }
    out << "\n";
}

void print_title(std::ostream& out, const std::string& title, bool markdown) {
    out << (markdown ? "#### " : "-- ") << title << (markdown ? "\n\n" : " --\n");
}

// One thread count: a row per way, and the notes of its failures.
void print_count(std::ostream& out, PointOp op, const ThreadCountResult& c, bool markdown) {
    print_title(out, std::string(op_name(op)) + ", " + std::to_string(c.threads) +
                         (c.threads == 1 ? " thread" : " threads"), markdown);
    const WayRounds* raw = find_way(c, Way::raw);
    std::vector<Row> rows = {{"way", "calls/s", "p50 us", "p99 us", "srv us/call", "cli us/call",
                              "failed", "wrong", "calls/s / raw", "p99 / raw"}};
    std::vector<std::string> notes;
    for (const auto& w : c.ways) {
        std::uint64_t failed = 0, wrong = 0;
        bool cut = false;
        std::string first_problem;
        for (const auto& r : w.rounds) {
            failed += r.failed;
            wrong += r.wrong;
            cut = cut || r.latencies_cut;
            if (first_problem.empty()) first_problem = r.problem;
        }
        const std::string name = way_name(w.way);
        if (!first_problem.empty()) notes.push_back(name + ", the first: " + first_problem);
        if (cut) {
            notes.push_back(name + ": a thread made more calls than its latency buffer holds;"
                                   " the percentiles cover the calls recorded");
        }
        const bool against_raw = raw != nullptr && w.way != Way::raw;
        rows.push_back({name, fmt("%.0f", median_of(w, kRate)), number(median_of(w, kP50)),
                        number(median_of(w, kP99)), number(median_of(w, kServerPerCall)),
                        number(median_of(w, kClientPerCall)), std::to_string(failed),
                        std::to_string(wrong),
                        against_raw ? fmt("%.2f", median_ratio(w, *raw, kRate)) : "-",
                        against_raw ? fmt("%.2f", median_ratio(w, *raw, kP99)) : "-"});
    }
    print_rows(out, rows, markdown);
    for (const auto& note : notes) {
        out << (markdown ? "" : "  ") << "note: " << note << (markdown ? "  \n" : "\n");
    }
    if (!notes.empty()) out << "\n";
}

// Calls per second of every way, and the ratios to raw, over thread counts.
void print_summary(std::ostream& out, const OpResult& result, bool markdown) {
    if (result.counts.empty()) return;
    const auto& ways = result.counts.front().ways;
    const bool has_raw = find_way(result.counts.front(), Way::raw) != nullptr;
    Row header = {"threads"};
    for (const auto& w : ways) header.push_back(std::string(way_name(w.way)) + " calls/s");
    for (const auto& w : ways) {
        if (!has_raw || w.way == Way::raw) continue;
        header.push_back(std::string(way_name(w.way)) + "/raw calls/s");
        header.push_back(std::string(way_name(w.way)) + "/raw p99");
    }
    std::vector<Row> rows = {header};
    for (const auto& c : result.counts) {
        Row row = {std::to_string(c.threads)};
        for (const auto& w : c.ways) row.push_back(fmt("%.0f", median_of(w, kRate)));
        const WayRounds* raw = find_way(c, Way::raw);
        for (const auto& w : c.ways) {
            if (raw == nullptr || w.way == Way::raw) continue;
            row.push_back(fmt("%.2f", median_ratio(w, *raw, kRate)));
            row.push_back(fmt("%.2f", median_ratio(w, *raw, kP99)));
        }
        rows.push_back(row);
    }
    print_title(out, std::string(op_name(result.op)) + ": all thread counts (medians)", markdown);
    print_rows(out, rows, markdown);
}

void print_target(std::ostream& out, const OpResult& result, bool markdown) {
    out << (markdown ? "**target**: " : "target: ") << op_name(result.op) << " at " << kTargetThreads
        << " threads, shared >= " << fmt("%.1f", kTargetRate) << "x raw calls/s and shared p99 <= raw p99: ";
    const ThreadCountResult* at = nullptr;
    for (const auto& c : result.counts) {
        if (c.threads == kTargetThreads) at = &c;
    }
    const WayRounds* shared = at ? find_way(*at, Way::shared) : nullptr;
    const WayRounds* raw = at ? find_way(*at, Way::raw) : nullptr;
    if (shared == nullptr || raw == nullptr) {
        out << "not judged (needs " << kTargetThreads << " threads and the shared and raw ways)\n\n";
        return;
    }
    const double rate = median_ratio(*shared, *raw, kRate);
    const double p99 = median_ratio(*shared, *raw, kP99);
    const bool clean = bad_calls(*shared) == 0 && bad_calls(*raw) == 0;
    const bool holds = clean && rate >= kTargetRate && p99 <= kTargetP99;
    out << "calls/s " << fmt("%.2f", rate) << "x, p99 " << fmt("%.2f", p99) << "x: "
        << (holds ? "HOLDS" : "MISSED") << (clean ? "" : " (calls failed)") << "\n\n";
}

}  // namespace

std::uint64_t print_op(std::ostream& out, const OpResult& result, bool markdown) {
    out << (markdown ? "### " : "== ") << op_name(result.op) << " against " << native_work(result.op)
        << "; " << result.placement << (markdown ? "\n\n" : " ==\n\n");
    if (!result.check_failure.empty()) {
        out << "DIFFERS: " << result.check_failure << "; not measured\n\n";
        return 1;
    }
    std::uint64_t bad = 0;
    for (const auto& c : result.counts) {
        print_count(out, result.op, c, markdown);
        for (const auto& w : c.ways) bad += bad_calls(w);
    }
    print_summary(out, result, markdown);
    print_target(out, result, markdown);
    return bad;
}

void print_threads_legend(std::ostream& out, bool markdown) {
    const char* item = markdown ? "- " : "  ";
    out << (markdown ? "Columns:\n\n" : "Columns:\n");
    out << item << "shared: one kv_client used by all the threads; per-thread: a kv_client of its own per"
        << " thread; raw: a hiredis connection of its own per thread doing the same native work\n";
    out << item << "calls/s: calls answered right by all threads together per second of the round;"
        << " p50, p99: latency of one call over every call of every thread (microseconds);"
        << " all medians over rounds\n";
    out << item << "srv us/call: CPU of the server's main thread per call; cli us/call: CPU of this"
        << " process (all its threads) per call\n";
    out << item << "failed: calls that answered a failure status or lost their connection; wrong: answers"
        << " that are not what the member holds (totals over rounds)\n";
    out << item << "/ raw: median over rounds of the ratio to raw hiredis in the same round\n";
}

}  // namespace kelvane_bench
