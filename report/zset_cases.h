// zset_cases.h -- the cases zset runs, in run order: 18 suites, 68 cases. The reader needs them to name the cases a
// transcript lacks and to group every case by its suite, since a title alone does not always name its suite.
#ifndef ZSET_REPORT_ZSET_CASES_H
#define ZSET_REPORT_ZSET_CASES_H

#include <cstddef>
#include <string>
#include <vector>

namespace zset_report {

struct ExpectedCase {
    std::string suite;   // "ZRANGE"
    int number = 0;      // position within the suite, from 1
    std::string title;   // the header's text, "ZRANGE zset 0 -1"

    std::string label() const { return suite + " " + std::to_string(number); }  // "ZRANGE 2"
};

// All 68 cases in the order zset runs them.
const std::vector<ExpectedCase>& zset_cases();

}  // namespace zset_report

#endif  // ZSET_REPORT_ZSET_CASES_H
