// native_range_reply.cpp -- members, scores and values of a range read from
// the replies of native commands.
#include "native_range_reply.h"

#include <algorithm>
#include <functional>
#include <string_view>

#include "score_text.h"

namespace kelvane {
namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

bool is_values_part(RangePart part) {
    return part == RangePart::values_list || part == RangePart::values_table ||
           part == RangePart::values_count;
}

}  // namespace

uint32_t NativeRangeReply::values_commands(const RangePart* parts, std::size_t n) {
    uint32_t mask = 0;
    for (std::size_t k = 0; k < std::min(n, kMaxCommands); ++k) {
        if (is_values_part(parts[k])) mask |= 1u << k;
    }
    return mask;
}

NativeRangeReply::NativeRangeReply(RangeBuilder& result, const RangePart* parts, std::size_t n,
                                   const Envelope& envelope)
    : TransactionReply(std::min(n, kMaxCommands), values_commands(parts, n), envelope),
      result_(result) {
    n = std::min(n, kMaxCommands);
    std::copy_n(parts, n, parts_.begin());
    has_items_ = std::find(parts, parts + n, RangePart::items) != parts + n;
}

std::size_t NativeRangeReply::backed() const {
    return unread_bytes() / (kLeastElementBytes * (result_.with_scores() ? 2 : 1));
}

bool NativeRangeReply::take_reply(std::size_t k, const ReplyPosition& at, const Element& e) {
    if (k >= kMaxCommands) return false;
    const RangePart part = parts_[k];
    if (e.kind == Element::Kind::error) {
        if (at.depth != 0) return false;
        if (!e.is_wrong_type()) {
            command_failed(e.text());
            return true;
        }
        if (part == RangePart::exists) return false;
        (part == RangePart::items ? items_wrong_type_ : values_wrong_type_) = true;
        return true;
    }
    switch (part) {
        case RangePart::exists:
            if (at.depth != 0 || e.kind != Element::Kind::integer) return false;
            exists_ = e.integer != 0;
            return true;
        case RangePart::values_count:
            if (at.depth != 0 || e.kind != Element::Kind::integer || e.integer < 0) return false;
            values_count_ = static_cast<std::size_t>(e.integer);
            return true;
        case RangePart::items:
            return take_items(at, e);
        default:
            return take_values(part, at, e);
    }
}

bool NativeRangeReply::take_items(const ReplyPosition& at, const Element& e) {
    const bool scores = result_.with_scores();
    if (at.depth == 0) {
        // Members, or member and score pairs.
        if (e.kind != Element::Kind::array || (scores && e.count % 2 != 0)) return false;
        return result_.start(scores ? e.count / 2 : e.count, backed());
    }
    if (at.depth != 1 || e.kind != Element::Kind::bulk) return false;
    const auto i = static_cast<std::size_t>(at.index);
    const std::size_t member = scores ? i / 2 : i;
    if (scores && i % 2 == 1) {
        double score = 0;
        if (!parse_score(e.bytes, e.len, &score)) return false;
        result_.set_score(member, score);
        return true;
    }
    result_.add_member(member, e.bytes, e.len, backed());
    return true;
}

bool NativeRangeReply::take_values(RangePart part, const ReplyPosition& at, const Element& e) {
    if (at.depth == 0) {
        if (e.kind != Element::Kind::array) return false;
        // HMGET: one value per member; HGETALL: name and value pairs.
        if (part == RangePart::values_list ? e.count != result_.size() : e.count % 2 != 0) {
            return false;
        }
        if (part == RangePart::values_table) values_count_ = e.count / 2;
        result_.open_values();
        return true;
    }
    if (at.depth != 1) return false;
    const auto i = static_cast<std::size_t>(at.index);
    if (part == RangePart::values_list) {
        // A member without a value stays null.
        if (e.kind == Element::Kind::nil) return true;
        if (e.kind != Element::Kind::bulk) return false;
        result_.set_value(i, e.bytes, e.len);
        return true;
    }
    if (e.kind != Element::Kind::bulk) return false;
    if (i % 2 == 0) {
        pending_ = find_member(e.text());
    } else if (pending_ != kNone) {
        result_.set_value(pending_, e.bytes, e.len);
    }
    return true;
}

std::size_t NativeRangeReply::find_member(std::string_view name) {
    const std::size_t n = result_.size();
    if (n == 0 || result_.no_memory()) return kNone;
    // Open addressing over twice as many slots as members, a power of two;
    // a slot holds the member's number + 1 (0: empty) and the high half of
    // its name's hash, so that a probe reads a member's bytes only when the
    // hashes agree.
    const std::hash<std::string_view> hash;
    if (index_.empty()) {
        std::size_t slots = 2;
        while (slots < 2 * n) slots *= 2;
        index_.assign(slots, 0);
        for (std::size_t m = 0; m < n; ++m) {
            const uint64_t h = hash(result_.member(m));
            std::size_t at = h & (slots - 1);
            while (index_[at] != 0) at = (at + 1) & (slots - 1);
            index_[at] = (h & 0xffffffff00000000u) | (m + 1);
        }
    }
    const std::size_t mask = index_.size() - 1;
    const uint64_t h = hash(name);
    for (std::size_t at = h & mask; index_[at] != 0; at = (at + 1) & mask) {
        if ((index_[at] ^ h) >> 32 != 0) continue;
        const std::size_t m = (index_[at] & 0xffffffffu) - 1;
        if (result_.member(m) == name) return m;
    }
    return kNone;
}

void NativeRangeReply::clear_replies() {
    if (has_items_) {
        result_.clear();
    } else {
        result_.clear_values();
    }
    items_wrong_type_ = values_wrong_type_ = exists_ = false;
    values_count_.reset();
    pending_ = kNone;
    index_.clear();
}

}  // namespace kelvane
