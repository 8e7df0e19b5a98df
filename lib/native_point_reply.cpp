// native_point_reply.cpp -- scalar replies of native commands.
#include "native_point_reply.h"

#include <algorithm>

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
    ReplyField& r = replies_[k];
    const Answer may = answers_[k];
    switch (e.kind) {
        case Element::Kind::nil:
            if (may == Answer::integer) return false;
            r.kind = ReplyField::Kind::nil;
            return true;
        case Element::Kind::integer:
            if (may == Answer::bulk_or_nil) return false;
            r.set_integer(e.integer);
            return true;
        case Element::Kind::error:
            if (e.is_wrong_type()) {
                r.kind = ReplyField::Kind::wrong_type;
            } else {
                command_failed(e.text());  // refused by the server's rules, say: the call's answer
            }
            return true;
        case Element::Kind::bulk:
            if (may != Answer::bulk_or_nil) return false;
            if (static_cast<int>(k) == handed_) {
                r.kind = ReplyField::Kind::handed;
                handed_buffer_ = mm_copy(mm_, e.bytes, e.len);
                handed_len_ = e.len;
                // The reply goes on to its end, so the stream stays in step.
                if (!handed_buffer_) no_memory_ = true;
            } else {
                r.set_text(e.bytes, e.len);
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

}  // namespace kelvane
