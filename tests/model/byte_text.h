// byte_text.h -- byte strings as text: readable quoting for failure messages
// (zero bytes and other unprintable bytes escaped, long runs shortened) and
// hex for files that must carry any bytes on one line.
#ifndef KELVANE_TESTS_MODEL_BYTE_TEXT_H
#define KELVANE_TESTS_MODEL_BYTE_TEXT_H

#include <optional>
#include <string>

namespace kelvane_model {

// "a\x00b" style, quoted; runs past 40 bytes are cut with their full length
// noted, so a 3000-byte value does not drown the message.
std::string quoted(const std::string& bytes);
std::string quoted(const std::optional<std::string>& bytes);

// A score as the shortest text that reads back as the same double.
std::string score_text(double score);

std::string to_hex(const std::string& bytes);
// Throws std::invalid_argument on text that is not hex.
std::string from_hex(const std::string& hex);

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_BYTE_TEXT_H
