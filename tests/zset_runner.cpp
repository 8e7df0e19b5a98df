// zset_runner.cpp -- running zset through run_command, and reading its framing line by line.
#include "zset_runner.h"

#include <algorithm>

namespace kelvane_test {

ZsetRun run_zset(const ZsetRunOptions& options) {
    std::vector<std::string> argv = options.wrapper;
    argv.push_back(KELVANE_ZSET_PATH);
    return run_command(argv, options);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t pos = 0; pos < text.size();) {
        const size_t nl = std::min(text.find('\n', pos), text.size());
        lines.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return lines;
}

Transcript parse_transcript(const std::string& out) {
    static const std::string kFailPrefix = "Condition=[", kFailMid = "] HAS FAILED at ";
    Transcript t;
    t.well_formed = !out.empty() && out.back() == '\n';
    const std::vector<std::string> lines = lines_of(out);
    CaseResult* open = nullptr;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        if (line == "== PASSED ==" || line == "== FAILED ==") {
            if (!open) t.well_formed = false;
            else open->passed = line == "== PASSED ==";
            open = nullptr;
            if (i + 1 >= lines.size() || !lines[++i].empty()) t.well_formed = false;  // the empty line after it
        } else if (line.rfind(kFailPrefix, 0) == 0) {
            const size_t mid = line.rfind(kFailMid);
            const std::string cond =
                mid == std::string::npos ? line : line.substr(kFailPrefix.size(), mid - kFailPrefix.size());
            if (open) open->failure_lines.push_back(line);
            (open ? open->failed_conditions : t.preamble_failures).push_back(cond);
        } else if (line.size() > 6 && line.rfind("== ", 0) == 0 && line.compare(line.size() - 3, 3, " ==") == 0) {
            if (open) t.well_formed = false;
            t.cases.push_back(CaseResult{line.substr(3, line.size() - 6), {}, false, {}});
            open = &t.cases.back();
        } else if (line.rfind(std::string(31, '='), 0) == 0) {
            t.summary = line;
            if (open) t.well_formed = false;
        } else {
            t.well_formed = false;
        }
    }
    return t;
}

}  // namespace kelvane_test
