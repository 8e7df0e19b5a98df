// assessment.cpp -- matching a transcript against zset's run order. Cases are matched by position, as zset always
// runs them in the same order: a title that differs from zset's is kept and reported, so a transcript from another
// version of zset still reads, but never counts as a clean run.
#include "assessment.h"

#include <algorithm>
#include <cstring>

#include "zset_cases.h"

namespace zset_report {
namespace {

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

std::string first_of(const std::vector<std::string>& lines) {
    std::string m = lines.front();
    if (lines.size() > 1) m += " (and " + std::to_string(lines.size() - 1) + " more)";
    return m;
}

void append(std::vector<std::string>& to, const std::vector<std::string>& from) {
    to.insert(to.end(), from.begin(), from.end());
}

class Assessor {
public:
    explicit Assessor(const Transcript& t) : t_(t), expected_(zset_cases()) { a_.cases = static_cast<int>(expected_.size()); }

    Assessment run(int zset_status) {
        const size_t seen = t_.cases.size();
        const size_t total = std::max(seen, expected_.size());
        for (size_t k = 0; k < total; ++k) {
            add_outside(k);
            if (k < seen) {
                add_case(k);
            } else {
                add_missing(k);
            }
        }
        add_outside(total);
        add_run_faults(zset_status);
        return a_;
    }

private:
    // Cases past zset's last one form a suite of their own; lines after the last case go with the last entry.
    std::string suite_of(size_t k) const { return k < expected_.size() ? expected_[k].suite : "extra cases"; }
    std::string suite_after_last() const {
        return a_.entries.empty() ? expected_.back().suite : a_.entries.back().suite;
    }

    // Lines that stood before case k. Failure lines become an entry of their own in the suite of the case they
    // preceded; other output goes with that case's entry (or the last entry, after the last case).
    void add_outside(size_t k) {
        // The groups stand in transcript order, so their next_case never decreases.
        for (; next_group_ < t_.outside.size() && t_.outside[next_group_].next_case == k; ++next_group_) {
            const OutsideLines& group = t_.outside[next_group_];
            if (!group.failures.empty()) {
                Entry e;
                e.suite = k < expected_.size() ? suite_of(k) : suite_after_last();
                e.name = k < expected_.size()
                             ? "checks outside any case, before " + quoted(expected_[k].title)
                             : "checks outside any case, after the last case";
                e.outcome = Outcome::failed;
                e.message = first_of(group.failures);
                e.details = group.failures;
                a_.outside_failures += static_cast<int>(group.failures.size());
                a_.entries.push_back(std::move(e));
            }
            if (!group.others.empty()) pending_output_.push_back(group.others);
        }
        if (k >= std::max(t_.cases.size(), expected_.size()) && !a_.entries.empty()) {
            for (const auto& lines : pending_output_) append(a_.entries.back().output, lines);
            pending_output_.clear();
        }
    }

    Entry case_entry(size_t k, const std::string& title) {
        Entry e;
        e.suite = suite_of(k);
        e.label = k < expected_.size() ? expected_[k].label() : "case " + std::to_string(k + 1);
        e.name = title;
        for (const auto& lines : pending_output_) append(e.output, lines);
        pending_output_.clear();
        return e;
    }

    void add_case(size_t k) {
        const CaseRecord& c = t_.cases[k];
        Entry e = case_entry(k, c.title);
        append(e.output, c.other_lines);
        e.details = c.failures;
        if (k >= expected_.size()) {
            problems_.push_back("a case zset does not run: " + quoted(c.title));
        } else if (c.title != expected_[k].title) {
            problems_.push_back(e.label + " is titled " + quoted(c.title) + " where zset's is " +
                                quoted(expected_[k].title));
        }
        switch (c.verdict) {
            case Verdict::passed:
                if (c.failures.empty()) {
                    e.outcome = Outcome::passed;
                    if (k < expected_.size()) ++a_.passed;
                } else {
                    // zset never passes a case after a failed check; trust the check.
                    e.outcome = Outcome::failed;
                    e.message = first_of(c.failures);
                    problems_.push_back(e.label + " reads PASSED after failed checks");
                    if (k < expected_.size()) ++a_.failed;
                }
                break;
            case Verdict::failed:
                e.outcome = Outcome::failed;
                e.message = c.failures.empty() ? "FAILED without a failure line" : first_of(c.failures);
                if (k < expected_.size()) ++a_.failed;
                break;
            case Verdict::none:
                e.outcome = Outcome::error;
                e.message = "no verdict: the case was cut off";
                if (k < expected_.size()) ++a_.no_verdict;
                break;
        }
        a_.entries.push_back(std::move(e));
    }

    void add_missing(size_t k) {
        Entry e = case_entry(k, expected_[k].title);
        e.outcome = Outcome::error;
        e.not_run = true;
        e.message = "not run: the transcript ends before this case";
        ++a_.not_run;
        a_.entries.push_back(std::move(e));
    }

    void add_run_faults(int zset_status) {
        append(problems_, t_.irregularities);
        const Summary& s = t_.summary;
        if (!s.present) {
            problems_.push_back("no summary line: zset did not finish its run");
        } else if (s.well_formed && (s.passed != a_.passed || s.failed != a_.failed)) {
            problems_.push_back("the summary counts " + std::to_string(s.passed) + " passed and " +
                                std::to_string(s.failed) + " failed, the verdicts " + std::to_string(a_.passed) +
                                " and " + std::to_string(a_.failed));
        }
        if (!problems_.empty()) add_run_fault("transcript", problems_);
        if (zset_status > 0) add_run_fault("exit status", {describe_exit_status(zset_status)});
    }

    void add_run_fault(const std::string& name, const std::vector<std::string>& details) {
        Entry e;
        e.suite = kRunSuite;
        e.name = name;
        e.outcome = Outcome::error;
        e.message = first_of(details);
        e.details = details;
        ++a_.run_faults;
        a_.entries.push_back(std::move(e));
    }

    const Transcript& t_;
    const std::vector<ExpectedCase>& expected_;
    Assessment a_;
    size_t next_group_ = 0;                                  // the first group of t_.outside not yet placed
    std::vector<std::vector<std::string>> pending_output_;  // outside output waiting for the next case's entry
    std::vector<std::string> problems_;
};

}  // namespace

std::string describe_exit_status(int status) {
    if (status == 0) return "";
    if (status == 124) return "zset did not finish in time and was stopped (status 124)";
    if (status == 126 || status == 127) return "zset could not be started (status " + std::to_string(status) + ")";
    if (status > 128 && status < 128 + 65) {
        const int sig = status - 128;
        return "zset was killed by signal " + std::to_string(sig) + " (" + strsignal(sig) + ")";
    }
    return "zset exited with status " + std::to_string(status) + "; it exits 0 after every run it completes";
}

Assessment assess(const Transcript& transcript, int zset_status) { return Assessor(transcript).run(zset_status); }

}  // namespace zset_report
