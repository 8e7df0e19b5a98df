// listing.cpp -- one line per case that did not pass, its failure lines indented below it. Cases that never ran
// come as one line per stretch: a run cut off early would otherwise bury the failures above under sixty lines.
#include "listing.h"

#include "visible_text.h"

namespace zset_report {
namespace {

std::string head(const Entry& e) {
    std::string h = e.label.empty() ? e.name : e.label + " \"" + e.name + "\"";
    return visible(clipped(h));
}

std::string counted(int n, const std::string& one, const std::string& many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string closing_line(const Assessment& a) {
    std::string line = std::string("zset-report: ") + (a.ok() ? "PASSED" : "FAILED") + ", " +
                       std::to_string(a.passed) + " of " + std::to_string(a.cases) + " cases passed";
    if (a.failed) line += ", " + std::to_string(a.failed) + " failed";
    if (a.no_verdict) line += ", " + std::to_string(a.no_verdict) + " cut off";
    if (a.not_run) line += ", " + std::to_string(a.not_run) + " not run";
    if (a.outside_failures) {
        line += ", " + counted(a.outside_failures, "failure line", "failure lines") + " outside any case";
    }
    if (a.run_faults) line += ", " + counted(a.run_faults, "fault", "faults") + " of the run itself";
    return line + "\n";
}

}  // namespace

std::string listing(const Assessment& a) {
    std::string out;
    const auto& entries = a.entries;
    for (size_t k = 0; k < entries.size(); ++k) {
        const Entry& e = entries[k];
        if (e.outcome == Outcome::passed) continue;
        if (e.not_run) {
            size_t last = k;
            while (last + 1 < entries.size() && entries[last + 1].not_run) ++last;
            out += "NOT RUN " + head(e);
            if (last > k) out += " to " + head(entries[last]) + " (" + std::to_string(last - k + 1) + " cases)";
            out += ": the transcript ends before " + std::string(last > k ? "them" : "it") + "\n";
            k = last;
            continue;
        }
        // A failed case is told by its failure lines; anything else by its message, then its lines if they add to it.
        const bool failed = e.outcome == Outcome::failed;
        out += std::string(failed ? "FAILED " : "ERROR ") + head(e);
        if (!failed || e.details.empty()) out += ": " + visible(clipped(e.message));
        out += "\n";
        const bool details_add = failed || e.details.size() > 1 ||
                                 (e.details.size() == 1 && e.details.front() != e.message);
        if (details_add) {
            for (const std::string& line : e.details) out += "    " + visible(clipped(line)) + "\n";
        }
    }
    return out + closing_line(a);
}

}  // namespace zset_report
