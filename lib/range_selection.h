// range_selection.h -- what selects the members of a range read: ranks, or
// inclusive score bounds with an optional limit.
#ifndef KELVANE_RANGE_SELECTION_H
#define KELVANE_RANGE_SELECTION_H

#include <cstdint>

namespace kelvane {

struct Selection {
    bool by_score;
    int32_t start, stop;  // by rank
    double min, max;      // by score
    bool limited;
    int32_t offset, count;  // with a limit; a negative count: all the rest
};

}  // namespace kelvane

#endif  // KELVANE_RANGE_SELECTION_H
