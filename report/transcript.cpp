// transcript.cpp -- recognising zset's lines. The framing is fixed by zset: "== <title> ==" opens a case,
// "== PASSED ==" or "== FAILED ==" closes it (and an empty line follows), failure lines may stand anywhere, and
// the summary ends the run. Lines are matched whole; one trailing carriage return is tolerated, so that a
// transcript saved with CRLF line ends still reads. Empty lines carry nothing and are skipped.
#include "transcript.h"

#include <cctype>

namespace zset_report {
namespace {

const std::string kPassed = "== PASSED ==";
const std::string kFailed = "== FAILED ==";
const std::string kSummaryRule = std::string(31, '=');
const std::string kSummaryOpen = kSummaryRule + " ZSET: PASSED = ";
const std::string kSummaryMiddle = ", FAILED = ";
const std::string kSummaryClose = " " + std::string(41, '=');

bool starts_with(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

bool ends_with(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool is_header(const std::string& line) {
    return line.size() > 6 && starts_with(line, "== ") && ends_with(line, " ==") && line != kPassed &&
           line != kFailed;
}

// A count as "%d" prints one that is never negative: decimal digits, no sign, no leading zero.
bool read_count(const std::string& s, size_t& pos, long& out) {
    const size_t start = pos;
    while (pos < s.size() && std::isdigit(static_cast<unsigned char>(s[pos])) && pos - start < 10) ++pos;
    if (pos == start || (s[start] == '0' && pos - start > 1)) return false;
    out = std::stol(s.substr(start, pos - start));
    return true;
}

Summary read_summary(const std::string& line) {
    Summary s;
    s.present = true;
    s.line = line;
    size_t pos = kSummaryOpen.size();
    if (!starts_with(line, kSummaryOpen) || !read_count(line, pos, s.passed)) return s;
    if (line.compare(pos, kSummaryMiddle.size(), kSummaryMiddle) != 0) return s;
    pos += kSummaryMiddle.size();
    if (!read_count(line, pos, s.failed)) return s;
    s.well_formed = line.compare(pos, std::string::npos, kSummaryClose) == 0;
    return s;
}

std::vector<std::string> split_lines(const std::string& bytes) {
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < bytes.size()) {
        size_t end = bytes.find('\n', pos);
        if (end == std::string::npos) end = bytes.size();
        std::string line = bytes.substr(pos, end - pos);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(std::move(line));
        pos = end + 1;
    }
    return lines;
}

// The group of outside lines that stands before the case with index next_case.
OutsideLines& outside_group(Transcript& t) {
    if (t.outside.empty() || t.outside.back().next_case != t.cases.size()) {
        t.outside.push_back(OutsideLines{t.cases.size(), {}, {}});
    }
    return t.outside.back();
}

}  // namespace

bool is_failure_line(const std::string& line) {
    static const std::string kOpen = "Condition=[";
    static const std::string kMiddle = "] HAS FAILED at ";
    return starts_with(line, kOpen) && line.find(kMiddle, kOpen.size()) != std::string::npos;
}

Transcript read_transcript(const std::string& bytes) {
    Transcript t;
    bool open = false;  // the last case has a header and no verdict yet
    for (const std::string& line : split_lines(bytes)) {
        if (line.empty()) continue;
        if (t.summary.present) {
            // zset prints nothing after its summary: a failure line here is not one of its checks either.
            outside_group(t).others.push_back(line);
        } else if (line == kPassed || line == kFailed) {
            if (open) {
                t.cases.back().verdict = line == kPassed ? Verdict::passed : Verdict::failed;
                open = false;
            } else {
                t.irregularities.push_back("a verdict \"" + line + "\" outside any case");
            }
        } else if (is_failure_line(line)) {
            (open ? t.cases.back().failures : outside_group(t).failures).push_back(line);
        } else if (is_header(line)) {
            t.cases.push_back(CaseRecord{line.substr(3, line.size() - 6), {}, {}, Verdict::none});
            open = true;
        } else if (starts_with(line, kSummaryRule)) {
            open = false;  // a case left open has no verdict, which the reader reports on the case itself
            t.summary = read_summary(line);
            if (!t.summary.well_formed) t.irregularities.push_back("the summary line does not read as zset's");
        } else {
            (open ? t.cases.back().other_lines : outside_group(t).others).push_back(line);
        }
    }
    return t;
}

}  // namespace zset_report
