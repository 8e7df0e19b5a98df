// transcript.h -- a zset transcript read line by line into what zset printed: case headers, failure lines,
// verdicts and the summary, plus whatever else the output holds. Reading never fails: any bytes give a
// Transcript, and what does not fit zset's framing is kept and noted rather than dropped.
#ifndef ZSET_REPORT_TRANSCRIPT_H
#define ZSET_REPORT_TRANSCRIPT_H

#include <cstddef>
#include <string>
#include <vector>

namespace zset_report {

enum class Verdict { none, passed, failed };

struct CaseRecord {
    std::string title;
    std::vector<std::string> failures;     // failure lines, whole, in order
    std::vector<std::string> other_lines;  // lines in the case that zset does not print (a library's own output)
    Verdict verdict = Verdict::none;
};

// Lines printed outside any case, grouped by where they stood: before the case with index next_case (the number
// of headers seen before them). zset prints failure lines there for its checks that belong to no case (the server
// registration, a suite's set-up); anything else there is someone else's output, such as the library's.
struct OutsideLines {
    size_t next_case = 0;
    std::vector<std::string> failures;
    std::vector<std::string> others;
};

struct Summary {
    bool present = false;      // a line that looks like zset's summary was seen
    bool well_formed = false;  // ... and reads exactly as zset prints it
    long passed = -1;
    long failed = -1;
    std::string line;
};

struct Transcript {
    std::vector<CaseRecord> cases;  // in order of their headers
    std::vector<OutsideLines> outside;  // in transcript order; lines after the summary come last
    Summary summary;
    std::vector<std::string> irregularities;  // framing zset never produces: a verdict without a header, ...
};

Transcript read_transcript(const std::string& bytes);

// True for a line that zset prints for a failed check: "Condition=[...] HAS FAILED at <file> line <n>".
bool is_failure_line(const std::string& line);

}  // namespace zset_report

#endif  // ZSET_REPORT_TRANSCRIPT_H
