// range_builder.cpp -- range results built while they are parsed.
#include "range_builder.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace kelvane {
namespace {

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

void release_items(const MmBuffer& items, std::size_t n) {
    if (!items) return;
    for (std::size_t k = 0; k < n; ++k) mm_release(reinterpret_cast<void**>(items.get())[k]);
}

}  // namespace

void RangeBuilder::store_item(const MmBuffer& items, const MmBuffer& lens, std::size_t i,
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

bool RangeBuilder::make_room(std::size_t m, std::size_t backed) {
    if (m < room_) return true;
    const std::size_t room = std::min(n_, std::max(2 * room_, m + 1 + backed));
    if (!grow<void*>(mm_, members_, room_, room) ||
        !grow<std::size_t>(mm_, members_len_, room_, room) ||
        (with_scores_ && !grow<double>(mm_, scores_, room_, room))) {
        return false;
    }
    room_ = room;
    return true;
}

bool RangeBuilder::start(std::size_t n, std::size_t backed) {
    if (n > kMaxMembers) return false;
    n_ = n;
    if (n_ != 0 && !make_room(0, backed)) no_memory_ = true;
    return true;
}

void RangeBuilder::add_member(std::size_t i, const char* bytes, std::size_t len,
                              std::size_t backed) {
    if (no_memory_) return;  // read on to the end of the reply, keeping nothing
    if (!make_room(i, backed)) {
        no_memory_ = true;
        return;
    }
    store_item(members_, members_len_, i, bytes, len);
}

void RangeBuilder::set_score(std::size_t i, double score) {
    if (i < room_) array<double>(scores_)[i] = score;
}

std::string_view RangeBuilder::member(std::size_t i) const {
    if (i >= room_) return {};
    const char* item = static_cast<const char*>(array<void*>(members_)[i]);
    if (item == nullptr) return {};
    return std::string_view(item, array<std::size_t>(members_len_)[i] - suffix_.size());
}

void RangeBuilder::open_values() {
    if (n_ == 0 || no_memory_ || values_) return;
    values_ = zeroed_array<void*>(mm_, n_);
    values_len_ = zeroed_array<std::size_t>(mm_, n_);
    if (!values_ || !values_len_) {
        no_memory_ = true;
        return;
    }
    values_n_ = n_;
}

void RangeBuilder::set_value(std::size_t i, const char* bytes, std::size_t len) {
    if (!no_memory_ && i < values_n_) store_item(values_, values_len_, i, bytes, len);
}

void RangeBuilder::clear_values() {
    release_items(values_, values_n_);
    values_.reset();
    values_len_.reset();
    values_n_ = 0;
}

void RangeBuilder::clear() {
    release_items(members_, room_);
    clear_values();
    members_.reset();
    members_len_.reset();
    scores_.reset();
    no_memory_ = false;
    n_ = room_ = 0;
}

void RangeBuilder::hand_out(const RangeOut& out) {
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
