// score_text.h -- scores as they travel: text with 17 significant digits,
// which every double survives exactly.
#ifndef KELVANE_SCORE_TEXT_H
#define KELVANE_SCORE_TEXT_H

#include <cstddef>

namespace kelvane {

// Parses a score as the server or a function sent it ("1.5", "-inf"). False
// for anything that is not wholly a number, and for NaN, which no sorted set
// can hold: a server that sends it is not to be believed.
bool parse_score(const char* text, std::size_t len, double* out);

}  // namespace kelvane

#endif  // KELVANE_SCORE_TEXT_H
