// range_reply.cpp -- range results built while they are parsed.
#include "range_reply.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "score_text.h"

namespace kelvane {
namespace {

constexpr int kStatusField = 0;
constexpr int kItemsField = 1;
constexpr int kValuesField = 2;

// n entries of T in one zeroed buffer of mm; empty when mm says no.
template <class T>
MmBuffer zeroed_array(kv_mm* mm, std::size_t n) {
    if (n > std::numeric_limits<std::size_t>::max() / sizeof(T)) return MmBuffer();
    MmBuffer b = mm_allocate(mm, n * sizeof(T));
    if (b) std::memset(b.get(), 0, n * sizeof(T));
    return b;
}

// The first `used` entries of T in a zeroed buffer of n entries: the array
// grown. Empty (and the old one kept) when mm says no.
template <class T>
bool grow(kv_mm* mm, MmBuffer& b, std::size_t used, std::size_t n) {
    MmBuffer bigger = zeroed_array<T>(mm, n);
    if (!bigger) return false;
    if (used != 0) std::memcpy(bigger.get(), b.get(), used * sizeof(T));
    b = std::move(bigger);
    return true;
}

}  // namespace

void RangeReply::store_item(const MmBuffer& items, const MmBuffer& lens, std::size_t i,
                            const char* bytes, std::size_t len) {
    const std::size_t total = len + suffix_.size();
    MmBuffer b = mm_allocate(mm_, total + 1);
    if (!b) {
        no_memory_ = true;
        return;
    }
    if (len != 0) std::memcpy(b.get(), bytes, len);
    if (!suffix_.empty()) std::memcpy(b.get() + len, suffix_.data(), suffix_.size());
    b.get()[total] = '\0';
    array<void*>(items)[i] = b.release();
    array<std::size_t>(lens)[i] = total;
}

bool RangeReply::make_room(std::size_t m) {
    if (m < room_) return true;
    const std::size_t per_member = with_scores_ ? 2 : 1;
    const std::size_t backed = unread_bytes() / (kLeastElementBytes * per_member);
    const std::size_t room = std::min(n_, std::max(2 * room_, m + 1 + backed));
    if (!grow<void*>(mm_, members_, room_, room) ||
        !grow<std::size_t>(mm_, members_len_, room_, room) ||
        (with_scores_ && !grow<double>(mm_, scores_, room_, room))) {
        return false;
    }
    room_ = room;
    return true;
}

bool RangeReply::open_items(std::size_t count) {
    // Items come only with a success, and in pairs when scores were asked.
    if (!have_status_ || status_ != KV_SUCCESS || (with_scores_ && count % 2 != 0)) return false;
    n_ = with_scores_ ? count / 2 : count;
    if (n_ > kMaxMembers) return false;
    if (n_ != 0 && !make_room(0)) no_memory_ = true;
    return true;
}

bool RangeReply::open_values(std::size_t count) {
    // One value per member that arrived, or none when none were asked for.
    if (count != (with_values_ ? n_ : 0)) return false;
    if (count == 0 || no_memory_) return true;
    values_ = zeroed_array<void*>(mm_, count);
    values_len_ = zeroed_array<std::size_t>(mm_, count);
    if (!values_ || !values_len_) {
        no_memory_ = true;
        return true;
    }
    values_n_ = count;
    return true;
}

bool RangeReply::take_array(const ReplyPosition& at, std::size_t count) {
    if (at.depth == 0) {
        // {status} or {status, items, values}
        if (count != 1 && count != 3) return false;
        fields_ = count - 1;
        return true;
    }
    if (at.depth == 1 && at.index == kItemsField) return open_items(count);
    if (at.depth == 1 && at.index == kValuesField) return open_values(count);
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
        if (!no_memory_ && values_) store_item(values_, values_len_, k, bytes, len);
        return true;
    }
    if (at.parent_index != kItemsField) return false;
    const std::size_t member = with_scores_ ? k / 2 : k;
    if (with_scores_ && k % 2 == 1) {
        double score = 0;
        if (!parse_score(bytes, len, &score)) return false;
        if (member < room_) array<double>(scores_)[member] = score;
        return true;
    }
    if (no_memory_) return true;  // read on to the end of the reply, keeping nothing
    if (!make_room(member)) {
        no_memory_ = true;
        return true;
    }
    store_item(members_, members_len_, member, bytes, len);
    return true;
}

void RangeReply::clear() {
    auto release_items = [](const MmBuffer& items, std::size_t n) {
        if (!items) return;
        for (std::size_t k = 0; k < n; ++k) mm_release(reinterpret_cast<void**>(items.get())[k]);
    };
    release_items(members_, room_);
    release_items(values_, values_n_);
    members_.reset();
    members_len_.reset();
    scores_.reset();
    values_.reset();
    values_len_.reset();
    no_memory_ = have_status_ = false;
    status_ = 0;
    fields_ = n_ = room_ = values_n_ = 0;
}

int32_t RangeReply::status() const {
    if (!have_status_) return KV_SERVER_ERROR;
    switch (status_) {
        case KV_SUCCESS:
            if (fields_ != 2) return KV_SERVER_ERROR;
            return no_memory_ ? KV_NO_MEMORY : KV_SUCCESS;
        case KV_WRONG_REPLY:
        case KV_NOTFOUND:
        case KV_INVALID_PARAMETER:
            return fields_ == 0 ? static_cast<int32_t>(status_) : KV_SERVER_ERROR;
        default:
            return KV_SERVER_ERROR;
    }
}

void RangeReply::hand_out(const RangeOut& out) {
    // Every member arrived, so the arrays have exactly n_ entries.
    *out.count = n_;
    *out.members = reinterpret_cast<void**>(members_.release());
    *out.members_len = reinterpret_cast<std::size_t*>(members_len_.release());
    if (out.scores) *out.scores = reinterpret_cast<double*>(scores_.release());
    if (out.values) {
        *out.values = reinterpret_cast<void**>(values_.release());
        *out.values_len = reinterpret_cast<std::size_t*>(values_len_.release());
    }
    room_ = values_n_ = 0;
    clear();
}

}  // namespace kelvane
