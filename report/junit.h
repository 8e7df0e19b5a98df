// junit.h -- the JUnit XML report of a zset run: one testsuite per zset suite in run order, one testcase per case
// named by its title, a failure per failed case with its failure lines, an error per case that was cut off or
// never ran, and testcases of their own for failure lines outside any case and for faults of the run itself.
#ifndef ZSET_REPORT_JUNIT_H
#define ZSET_REPORT_JUNIT_H

#include <string>

#include "assessment.h"

namespace zset_report {

// Valid XML 1.0 whatever bytes the transcript held.
std::string junit_xml(const Assessment& assessment);

}  // namespace zset_report

#endif  // ZSET_REPORT_JUNIT_H
