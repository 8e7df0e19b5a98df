// assessment.h -- what a transcript says about the run: each of zset's 68 cases passed, failed, stopped without a
// verdict or never ran; the failure lines outside any case; and anything that makes the transcript incomplete or
// not zset's. The JUnit report and the plain listing are both written from this.
#ifndef ZSET_REPORT_ASSESSMENT_H
#define ZSET_REPORT_ASSESSMENT_H

#include <string>
#include <vector>

#include "transcript.h"

namespace zset_report {

enum class Outcome { passed, failed, error };

// One test of the report: a zset case, a group of failure lines outside any case, or a fault of the run itself.
struct Entry {
    std::string suite;  // "ZRANGE"; kRunSuite for the run's own entries
    std::string label;  // "ZRANGE 2" for a zset case; empty otherwise
    std::string name;   // the case's title, or what the entry stands for
    Outcome outcome = Outcome::passed;
    bool not_run = false;              // a zset case the transcript ends before
    std::string message;               // one line: why it did not pass
    std::vector<std::string> details;  // the failure lines, or what went wrong
    std::vector<std::string> output;   // lines printed around it that are not zset's
};

inline const char* const kRunSuite = "run";

struct Assessment {
    std::vector<Entry> entries;  // run order; the run's own entries last
    int cases = 0;               // zset's cases: 68
    int passed = 0, failed = 0, no_verdict = 0, not_run = 0;
    int outside_failures = 0;    // failure lines outside any case
    int run_faults = 0;          // entries of kRunSuite

    // The run proves the library right: every case passed, no check failed outside a case, the transcript is
    // complete and zset's own, and zset ended normally.
    bool ok() const { return passed == cases && outside_failures == 0 && run_faults == 0; }
};

// zset_status is zset's exit status as a shell reports it (128 + N for signal N), or -1 when unknown.
Assessment assess(const Transcript& transcript, int zset_status);

// "killed by signal 11 (Segmentation fault)" and the like; empty for 0.
std::string describe_exit_status(int status);

}  // namespace zset_report

#endif  // ZSET_REPORT_ASSESSMENT_H
