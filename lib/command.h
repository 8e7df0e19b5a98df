// command.h -- one server command as binary-safe arguments, and the text
// forms in which numbers travel.
#ifndef KELVANE_COMMAND_H
#define KELVANE_COMMAND_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

class Command {
public:
    // Borrows bytes that must stay valid until the command has run: the
    // caller's keys, members and values are sent without a copy.
    Command& borrow(std::string_view bytes);
    Command& borrow(const char* bytes, std::size_t len) { return borrow(std::string_view(bytes, len)); }
    Command& own(std::string text);
    Command& score(double value) { return own(score_text(value)); }
    Command& integer(long long value) { return own(std::to_string(value)); }
    Command& flag(bool on) { return borrow(on ? "1" : "0"); }

    int argc() const { return static_cast<int>(ptrs_.size()); }
    const char** argv() { return ptrs_.data(); }
    const std::size_t* argv_len() const { return lens_.data(); }

    // 17 significant digits: every double survives the round trip exactly.
    static std::string score_text(double value);

private:
    std::deque<std::string> owned_;  // a deque keeps element addresses stable
    std::vector<const char*> ptrs_;
    std::vector<std::size_t> lens_;
};

// Parses a score as the server or a function sent it. False for anything
// that is not wholly a number.
bool parse_score(const char* text, std::size_t len, double* out);

}  // namespace kelvane

#endif  // KELVANE_COMMAND_H
