// call_result.h -- what one call handed back, in a form both sides share,
// so the comparison can tell whether the library and raw hiredis returned
// the same data: members and values byte for byte, scores bit for bit.
#ifndef KELVANE_BENCH_CALL_RESULT_H
#define KELVANE_BENCH_CALL_RESULT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane_bench {

struct CallResult {
    // The scalar outcome in words both sides can produce: "added",
    // "updated", "rank=5", "removed=100", "missing".
    std::string outcome;
    std::vector<std::string> members;
    std::vector<std::uint64_t> score_bits;
    std::vector<std::optional<std::string>> values;  // nullopt: no value

    void add_score(double score);
    bool operator==(const CallResult& other) const;
};

// The first difference between two results, for the report ("" if none).
std::string first_difference(const CallResult& lib, const CallResult& raw);

// The exact text Redis and the library use for a score (17 significant
// digits, enough for every double to read back unchanged).
int score_text(double score, char* out, int size);

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_CALL_RESULT_H
