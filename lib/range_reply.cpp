// range_reply.cpp -- the range-read function's reply, checked against its
// shape as it is parsed.
#include "range_reply.h"

#include "score_text.h"

namespace kelvane {
namespace {

constexpr int kStatusField = 0;
constexpr int kItemsField = 1;
constexpr int kValuesField = 2;

}  // namespace

std::size_t RangeReply::backed() const {
    return unread_bytes() / (kLeastElementBytes * (result_.with_scores() ? 2 : 1));
}

bool RangeReply::take_array(const ReplyPosition& at, std::size_t count) {
    if (at.depth == 0) {
        // {status} or {status, items, values}
        if (count != 1 && count != 3) return false;
        fields_ = count - 1;
        return true;
    }
    if (at.depth == 1 && at.index == kItemsField) {
        // Items come only with a success, and in pairs when scores were asked.
        if (!have_status_ || status_ != KV_SUCCESS || (result_.with_scores() && count % 2 != 0)) {
            return false;
        }
        return result_.start(result_.with_scores() ? count / 2 : count, backed());
    }
    if (at.depth == 1 && at.index == kValuesField) {
        // One value per member that arrived, or none when none were asked for.
        if (count != (result_.with_values() ? result_.size() : 0)) return false;
        result_.open_values();
        return true;
    }
    return false;
}

bool RangeReply::take_integer(const ReplyPosition& at, long long value) {
    if (at.depth != 1 || at.index != kStatusField) return false;
    status_ = value;
    have_status_ = true;
    return true;
}

bool RangeReply::take_nil(const ReplyPosition& at) {
    // A member without a value; its entry stays null with length 0.
    return at.depth == 2 && at.parent_index == kValuesField;
}

bool RangeReply::take_text(const ReplyPosition& at, bool is_bulk, const char* bytes,
                           std::size_t len) {
    if (at.depth != 2 || !is_bulk) return false;
    const auto k = static_cast<std::size_t>(at.index);
    if (at.parent_index == kValuesField) {
        result_.set_value(k, bytes, len);
        return true;
    }
    if (at.parent_index != kItemsField) return false;
    const bool scores = result_.with_scores();
    const std::size_t member = scores ? k / 2 : k;
    if (scores && k % 2 == 1) {
        double score = 0;
        if (!parse_score(bytes, len, &score)) return false;
        result_.set_score(member, score);
        return true;
    }
    result_.add_member(member, bytes, len, backed());
    return true;
}

void RangeReply::clear() {
    result_.clear();
    have_status_ = false;
    status_ = 0;
    fields_ = 0;
}

int32_t RangeReply::status() const {
    if (!have_status_) return KV_SERVER_ERROR;
    switch (status_) {
        case KV_SUCCESS:
            if (fields_ != 2) return KV_SERVER_ERROR;
            return result_.no_memory() ? KV_NO_MEMORY : KV_SUCCESS;
        case KV_WRONG_REPLY:
        case KV_NOTFOUND:
        case KV_INVALID_PARAMETER:
            return fields_ == 0 ? static_cast<int32_t>(status_) : KV_SERVER_ERROR;
        default:
            return KV_SERVER_ERROR;
    }
}

}  // namespace kelvane
