// native_point_reply.cpp -- scalar replies of native commands.
#include "native_point_reply.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "score_text.h"

namespace kelvane {

NativePointReply::NativePointReply(const Answer* answers, std::size_t n,
                                   uint32_t values_commands, const Envelope& envelope, kv_mm* mm,
                                   int handed)
    : TransactionReply(std::min(n, kMaxCommands), values_commands, envelope),
      mm_(mm),
      handed_(handed) {
    std::copy_n(answers, std::min(n, kMaxCommands), answers_.begin());
}

bool NativePointReply::take_reply(std::size_t k, const ReplyPosition& at, const Element& e) {
    // Nothing nests in these replies.
    if (at.depth != 0 || k >= kMaxCommands) return false;
    Reply& r = replies_[k];
    const Answer may = answers_[k];
    switch (e.kind) {
        case Element::Kind::nil:
            if (may == Answer::integer) return false;
            r.kind = Kind::nil;
            return true;
        case Element::Kind::integer:
            if (may == Answer::bulk_or_nil) return false;
            r.kind = Kind::integer;
            r.integer = e.integer;
            return true;
        case Element::Kind::error:
            if (e.is_wrong_type()) {
                r.kind = Kind::wrong_type;
            } else {
                command_failed(e.text());  // refused by the server's rules, say: the call's answer
            }
            return true;
        case Element::Kind::bulk:
            if (may != Answer::bulk_or_nil) return false;
            if (static_cast<int>(k) == handed_) {
                r.kind = Kind::handed;
                handed_buffer_ = mm_copy(mm_, e.bytes, e.len);
                handed_len_ = e.len;
                // The reply goes on to its end, so the stream stays in step.
                if (!handed_buffer_) no_memory_ = true;
            } else if (e.len > kMaxText) {
                r.kind = Kind::long_text;
            } else {
                r.kind = Kind::text;
                r.len = static_cast<uint8_t>(e.len);
                std::memcpy(r.text, e.bytes, e.len);
            }
            return true;
        default:
            return false;
    }
}

void NativePointReply::clear_replies() {
    replies_ = {};
    no_memory_ = false;
    handed_buffer_.reset();
    handed_len_ = 0;
}

bool NativePointReply::integer(std::size_t k, long long* out) const {
    if (replies_[k].kind != Kind::integer) return false;
    *out = replies_[k].integer;
    return true;
}

bool NativePointReply::count(std::size_t k, uint32_t* out) const {
    long long n = 0;
    if (!integer(k, &n) || n < 0 || n > std::numeric_limits<uint32_t>::max()) return false;
    *out = static_cast<uint32_t>(n);
    return true;
}

bool NativePointReply::score(std::size_t k, double* out) const {
    if (replies_[k].kind != Kind::text) return false;
    return parse_score(replies_[k].text, replies_[k].len, out);
}

}  // namespace kelvane
