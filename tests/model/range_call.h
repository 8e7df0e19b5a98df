// range_call.h -- one call of any of the four range reads with any flag
// combination, its result taken apart into owned data and every buffer
// released. The variadic tail is built from the flags, so every combination
// of scores, values, limit and reverse goes through the real C calling
// convention.
#ifndef KELVANE_TESTS_MODEL_RANGE_CALL_H
#define KELVANE_TESTS_MODEL_RANGE_CALL_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvane.h"

namespace kelvane_model {

enum class RangeBy { Rank, Score };

struct RangeQuery {
    RangeBy by = RangeBy::Rank;
    int32_t start = 0, stop = -1;  // by rank
    double min = 0, max = 0;       // by score
    int32_t flags = ZSET_DEFAULT;
    int32_t offset = 0, count = -1;     // passed with ZSET_WITH_LIMIT
    std::optional<std::string> suffix;  // set: kv_zrange_whole / kv_zrangebyscore_whole
    // false for calls the library must refuse before it reads any optional
    // argument: none is passed, so reading one would be caught.
    bool pass_optional = true;
};

struct RangeResult {
    int32_t status = -1;
    std::vector<std::string> members;
    std::vector<double> scores;                      // when asked for
    std::vector<std::optional<std::string>> values;  // when asked for
    // Empty, or what was wrong with the shape of the result: out-parameters
    // left unwritten, arrays on an empty result, an item without the zero
    // byte past its length.
    std::string fault;
};

RangeResult read_range(kv_client* client, kv_mm* mm, const std::string& key, const RangeQuery& q);

// The call as text, for failure messages.
std::string describe(const std::string& key, const RangeQuery& q);

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_RANGE_CALL_H
