// call_result.cpp -- comparing the two sides' results.
#include "call_result.h"

#include <cstdio>
#include <cstring>

namespace kelvane_bench {
namespace {

std::string shown(const std::optional<std::string>& v) {
    return v ? "\"" + *v + "\"" : "(none)";
}

std::string bits_text(std::uint64_t bits) {
    double d;
    std::memcpy(&d, &bits, sizeof d);
    char text[40];
    score_text(d, text, sizeof text);
    return text;
}

}  // namespace

void CallResult::add_score(double score) {
    std::uint64_t bits;
    std::memcpy(&bits, &score, sizeof bits);
    score_bits.push_back(bits);
}

bool CallResult::operator==(const CallResult& other) const {
    return outcome == other.outcome && members == other.members &&
           score_bits == other.score_bits && values == other.values;
}

std::string first_difference(const CallResult& lib, const CallResult& raw) {
    if (lib.outcome != raw.outcome) return "outcome " + lib.outcome + " vs " + raw.outcome;
    if (lib.members.size() != raw.members.size() || lib.score_bits.size() != raw.score_bits.size() ||
        lib.values.size() != raw.values.size()) {
        return "sizes " + std::to_string(lib.members.size()) + "/" +
               std::to_string(lib.score_bits.size()) + "/" + std::to_string(lib.values.size()) +
               " vs " + std::to_string(raw.members.size()) + "/" +
               std::to_string(raw.score_bits.size()) + "/" + std::to_string(raw.values.size());
    }
    for (size_t i = 0; i < lib.members.size(); ++i) {
        if (lib.members[i] != raw.members[i]) {
            return "member " + std::to_string(i) + ": " + lib.members[i] + " vs " + raw.members[i];
        }
    }
    for (size_t i = 0; i < lib.score_bits.size(); ++i) {
        if (lib.score_bits[i] != raw.score_bits[i]) {
            return "score " + std::to_string(i) + ": " + bits_text(lib.score_bits[i]) + " vs " +
                   bits_text(raw.score_bits[i]);
        }
    }
    for (size_t i = 0; i < lib.values.size(); ++i) {
        if (lib.values[i] != raw.values[i]) {
            return "value " + std::to_string(i) + ": " + shown(lib.values[i]) + " vs " +
                   shown(raw.values[i]);
        }
    }
    return "";
}

int score_text(double score, char* out, int size) {
    return std::snprintf(out, static_cast<size_t>(size), "%.17g", score);
}

}  // namespace kelvane_bench
