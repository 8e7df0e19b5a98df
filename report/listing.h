// listing.h -- the plain-text account of a run for a person or a CI log: every case that did not pass with its
// failure lines, the failure lines outside any case, what is wrong with the run itself, and a closing line.
#ifndef ZSET_REPORT_LISTING_H
#define ZSET_REPORT_LISTING_H

#include <string>

#include "assessment.h"

namespace zset_report {

std::string listing(const Assessment& assessment);

}  // namespace zset_report

#endif  // ZSET_REPORT_LISTING_H
