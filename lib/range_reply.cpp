// range_reply.cpp -- range results built while they are parsed.
#include "range_reply.h"

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

void RangeReply::open_items(std::size_t count) {
    if (with_scores_ && count % 2 != 0) {
        malformed_ = true;
        return;
    }
    n_ = with_scores_ ? count / 2 : count;
    if (n_ == 0) return;
    members_ = zeroed_array<void*>(mm_, n_);
    members_len_ = zeroed_array<std::size_t>(mm_, n_);
    if (with_scores_) scores_ = zeroed_array<double>(mm_, n_);
    if (!members_ || !members_len_ || (with_scores_ && !scores_)) no_memory_ = true;
}

void RangeReply::open_values(std::size_t count) {
    if (!with_values_) return;
    if (count != n_) {
        malformed_ = true;
        return;
    }
    if (n_ == 0) return;
    values_ = zeroed_array<void*>(mm_, n_);
    values_len_ = zeroed_array<std::size_t>(mm_, n_);
    if (!values_ || !values_len_) no_memory_ = true;
}

void RangeReply::take_array(const ReplyPosition& at, std::size_t count) {
    if (at.depth == 0) {
        is_array_ = true;
    } else if (at.depth == 1 && at.index == kItemsField) {
        open_items(count);
    } else if (at.depth == 1 && at.index == kValuesField) {
        open_values(count);
    } else {
        malformed_ = true;
    }
}

void RangeReply::take_integer(const ReplyPosition& at, long long value) {
    if (at.depth == 1 && at.index == kStatusField) {
        status_ = value;
        have_status_ = true;
    } else {
        malformed_ = true;
    }
}

void RangeReply::take_nil(const ReplyPosition& at) {
    // A member without a value; its entry stays null with length 0.
    if (!(at.depth == 2 && at.parent_index == kValuesField)) malformed_ = true;
}

void RangeReply::take_text(const ReplyPosition& at, bool, const char* bytes, std::size_t len) {
    if (at.depth != 2 || malformed_ || no_memory_) {
        if (at.depth != 2) malformed_ = true;
        return;
    }
    const auto k = static_cast<std::size_t>(at.index);
    if (at.parent_index == kItemsField && members_) {
        const std::size_t member = with_scores_ ? k / 2 : k;
        if (with_scores_ && k % 2 == 1) {
            if (!parse_score(bytes, len, &array<double>(scores_)[member])) malformed_ = true;
            return;
        }
        store_item(members_, members_len_, member, bytes, len);
    } else if (at.parent_index == kValuesField && values_) {
        store_item(values_, values_len_, k, bytes, len);
    } else if (at.parent_index != kValuesField) {
        malformed_ = true;
    }
}

void RangeReply::clear() {
    auto release_items = [this](const MmBuffer& items) {
        if (!items) return;
        for (std::size_t k = 0; k < n_; ++k) mm_release(array<void*>(items)[k]);
    };
    release_items(members_);
    release_items(values_);
    members_.reset();
    members_len_.reset();
    scores_.reset();
    values_.reset();
    values_len_.reset();
    is_array_ = malformed_ = no_memory_ = have_status_ = false;
    status_ = 0;
    n_ = 0;
}

int32_t RangeReply::status() const {
    if (!is_array_ || !have_status_ || malformed_) return KV_SERVER_ERROR;
    switch (status_) {
        case KV_SUCCESS:
            if (no_memory_) return KV_NO_MEMORY;
            if (n_ > 0 && with_values_ && !values_) return KV_SERVER_ERROR;
            return KV_SUCCESS;
        case KV_WRONG_REPLY:
        case KV_NOTFOUND:
        case KV_INVALID_PARAMETER:
            return static_cast<int32_t>(status_);
        default:
            return KV_SERVER_ERROR;
    }
}

void RangeReply::hand_out(const RangeOut& out) {
    *out.count = n_;
    *out.members = reinterpret_cast<void**>(members_.release());
    *out.members_len = reinterpret_cast<std::size_t*>(members_len_.release());
    if (out.scores) *out.scores = reinterpret_cast<double*>(scores_.release());
    if (out.values) {
        *out.values = reinterpret_cast<void**>(values_.release());
        *out.values_len = reinterpret_cast<std::size_t*>(values_len_.release());
    }
    n_ = 0;
    clear();
}

}  // namespace kelvane
