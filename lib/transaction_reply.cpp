// transaction_reply.cpp -- the envelope of a run of native commands: which
// reply is whose, the envelope's own replies, and which error counts.
#include "transaction_reply.h"

#include "server_keys.h"

namespace kelvane {
namespace {

bool starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool is_ok(const ReplyPosition& at, const Element& e, std::string_view text = "OK") {
    return at.depth == 0 && e.kind == Element::Kind::status && e.text() == text;
}

// How a single command naming the same keys would have been refused: a
// cluster node that holds some of a command's keys and not others while
// their slot migrates.
constexpr std::string_view kSplitKeys =
    "TRYAGAIN the keys of the transaction are split by a slot migration";

}  // namespace

void open_envelope(Request& request, const Envelope& envelope, const char* key, std::size_t key_len) {
    if (envelope.watch) {
        request.command(2, "WATCH").server_key(key, key_len, "");
        request.values_command(2, "WATCH").server_key(key, key_len, kValuesSuffix);
        // One ASKING would cover the first WATCH alone.
        request.cannot_follow_ask();
    }
    if (envelope.transaction) request.command(1, "MULTI");
}

void close_envelope(Request& request, const Envelope& envelope) {
    if (envelope.transaction) request.command(1, "EXEC");
    if (envelope.check_watch) {
        request.command(1, "MULTI");
        request.command(1, "EXEC");
    }
}

bool Element::is_wrong_type() const {
    return kind == Kind::error && starts_with(text(), "WRONGTYPE");
}

std::size_t TransactionReply::replies() const {
    const std::size_t around = envelope_.transaction || envelope_.check_watch ? 2 : 0;
    return watches() + sent_ + around;
}

TransactionReply::Slot TransactionReply::slot(std::size_t r, std::size_t* i) const {
    const std::size_t w = watches();
    if (r < w) return Slot::watch;
    r -= w;
    if (envelope_.transaction) {
        if (r == 0) return Slot::multi;
        *i = r - 1;
        return r <= sent_ ? Slot::queued : Slot::exec;
    }
    *i = r;
    if (r < sent_) return Slot::command;
    return r == sent_ ? Slot::check_multi : Slot::check_exec;
}

std::size_t TransactionReply::command_at(std::size_t i) const {
    for (std::size_t k = 0; k < commands_; ++k) {
        if (!was_sent(k)) continue;
        if (i-- == 0) return k;
    }
    return commands_;
}

void TransactionReply::clear() {
    sent_ = 0;
    for (std::size_t k = 0; k < commands_; ++k) sent_ += was_sent(k) ? 1 : 0;
    reply_ = -1;
    current_ = 0;
    multi_failed_ = watch_failed_ = false;
    queued_ = asked_ = 0;
    redirection_.clear();
    refusal_.clear();
    exec_error_.clear();
    clear_replies();
}

bool TransactionReply::deliver(const ReplyPosition& at, const Element& e) {
    if (at.depth == 0) ++reply_;
    std::size_t i = 0;
    switch (slot(static_cast<std::size_t>(reply_), &i)) {
        case Slot::watch:
        case Slot::multi:
        case Slot::check_multi:
            return is_ok(at, e);
        case Slot::queued:
            // After a refused MULTI the commands run one by one: whatever they
            // answer is not this request's answer, which is MULTI's error.
            if (multi_failed_) return true;
            if (!is_ok(at, e, "QUEUED")) return false;
            ++queued_;
            return true;
        case Slot::command:
            return take_reply(command_at(i), at, e);
        case Slot::exec:
            return deliver_exec(at, e);
        case Slot::check_exec:
            if (at.depth != 0) return false;
            if (e.kind == Element::Kind::nil) {
                watch_failed_ = true;
                return true;
            }
            return e.kind == Element::Kind::array && e.count == 0;
    }
    return false;
}

bool TransactionReply::deliver_exec(const ReplyPosition& at, const Element& e) {
    // The commands' replies in order, unless none of them ran.
    if (multi_failed_) return false;
    if (at.depth == 0) {
        if (queued_ != sent_) return false;  // a refused transaction never runs
        // nil: a watched key changed; but only a WATCH makes one.
        if (e.kind == Element::Kind::nil && envelope_.watch) {
            watch_failed_ = true;
            return true;
        }
        return e.kind == Element::Kind::array && e.count == sent_;
    }
    if (at.depth == 1) current_ = static_cast<std::size_t>(at.index);
    if (current_ >= sent_) return false;
    const ReplyPosition inner{at.depth - 1, at.depth == 1 ? -1 : at.index,
                              at.depth <= 2 ? -1 : at.parent_index};
    return take_reply(command_at(current_), inner, e);
}

bool TransactionReply::take_text(const ReplyPosition& at, bool is_bulk, const char* bytes,
                                 std::size_t len) {
    Element e;
    e.kind = is_bulk ? Element::Kind::bulk : Element::Kind::status;
    e.bytes = bytes;
    e.len = len;
    return deliver(at, e);
}

bool TransactionReply::take_array(const ReplyPosition& at, std::size_t count) {
    Element e;
    e.kind = Element::Kind::array;
    e.count = count;
    return deliver(at, e);
}

bool TransactionReply::take_integer(const ReplyPosition& at, long long value) {
    Element e;
    e.kind = Element::Kind::integer;
    e.integer = value;
    return deliver(at, e);
}

bool TransactionReply::take_nil(const ReplyPosition& at) {
    Element e;
    e.kind = Element::Kind::nil;
    return deliver(at, e);
}

bool TransactionReply::take_error(const ReplyPosition& at, const char* bytes, std::size_t len) {
    Element e;
    e.kind = Element::Kind::error;
    e.bytes = bytes;
    e.len = len;
    return deliver(at, e);
}

bool TransactionReply::take_top_error(const char* bytes, std::size_t len) {
    ++reply_;
    const std::string_view text(bytes, len);
    std::size_t i = 0;
    switch (slot(static_cast<std::size_t>(reply_), &i)) {
        case Slot::multi:
            multi_failed_ = true;
            refusal_.assign(text);
            return true;
        case Slot::queued:
            if (!multi_failed_) refused(text);  // else: a command that ran on its own
            return true;
        case Slot::exec:
            if (!multi_failed_) exec_error_.assign(text);  // else: EXEC without MULTI
            return true;
        case Slot::command: {
            // A key of another kind is the command's answer.
            Element e;
            e.kind = Element::Kind::error;
            e.bytes = bytes;
            e.len = len;
            if (!e.is_wrong_type() || !take_reply(command_at(i), ReplyPosition{0, -1, -1}, e)) {
                refused(text);
            }
            return true;
        }
        default:  // WATCH, or the check of it
            refused(text);
            return true;
    }
}

void TransactionReply::refused(std::string_view text) {
    const bool asked = starts_with(text, "ASK ");
    if (asked) ++asked_;
    std::string& first = asked || starts_with(text, "MOVED ") ? redirection_ : refusal_;
    if (first.empty()) first.assign(text);
}

void TransactionReply::replies_read() {
    if (!refusal_.empty()) {
        note_error(refusal_);  // MULTI's own, or the first command's
    } else if (!redirection_.empty()) {
        const bool all_asked = asked_ == watches() + sent_;
        note_error(starts_with(redirection_, "MOVED ") || all_asked ? std::string_view(redirection_)
                                                                    : kSplitKeys);
    } else if (!exec_error_.empty()) {
        note_error(exec_error_);  // refused at EXEC itself: MOVED, TRYAGAIN, EXECABORT
    }
}

}  // namespace kelvane
