// range_builder.h -- the result of a range read, built in the arrays and
// items the caller receives while the reply is parsed.
//
// Each member and value is copied, suffix appended, into a buffer of the
// memory manager as it arrives, and each score into the score array, so a
// result of n members costs one allocation per member and per value and a
// few for the arrays. An announced member count is believed only as far as
// bytes that arrived can back it: the arrays start with room for what the
// reader holds and grow as members come, so a short reply that announces
// millions costs nothing. Until hand_out() the builder owns everything and
// releases it when it goes.
//
// When the memory manager says no, the builder notes it and keeps nothing
// more, so that the reply can still be read to its end.
#ifndef KELVANE_RANGE_BUILDER_H
#define KELVANE_RANGE_BUILDER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kelvane.h"
#include "memory_manager.h"

namespace kelvane {

// Where a range read puts its result; the optional arrays are null when the
// caller did not ask for them.
struct RangeOut {
    void*** members;
    std::size_t* count;
    std::size_t** members_len;
    double** scores;
    void*** values;
    std::size_t** values_len;
};

class RangeBuilder {
public:
    // The most members one range read hands back (2^26); a reply that
    // announces more is a server error.
    static constexpr std::size_t kMaxMembers = std::size_t{1} << 26;

    RangeBuilder(kv_mm* mm, std::string_view suffix, bool with_scores, bool with_values)
        : mm_(mm), suffix_(suffix), with_scores_(with_scores), with_values_(with_values) {}
    ~RangeBuilder() { clear(); }
    RangeBuilder(const RangeBuilder&) = delete;
    RangeBuilder& operator=(const RangeBuilder&) = delete;

    bool with_scores() const { return with_scores_; }
    bool with_values() const { return with_values_; }

    // A result of n members is coming; backed: how many of them the bytes
    // at hand can carry. False for more than kMaxMembers.
    bool start(std::size_t n, std::size_t backed);
    std::size_t size() const { return n_; }
    // Member i (i < size()), its bytes; backed as for start().
    void add_member(std::size_t i, const char* bytes, std::size_t len, std::size_t backed);
    void set_score(std::size_t i, double score);
    // The bytes of member i as the server sent them (without the suffix),
    // once it arrived; empty when it did not.
    std::string_view member(std::size_t i) const;

    // Room for one value per member, every one null until set (once: the
    // values already set stay); values arrive after the members.
    void open_values();
    void set_value(std::size_t i, const char* bytes, std::size_t len);
    // Forgets the values, keeping the members.
    void clear_values();

    bool no_memory() const { return no_memory_; }

    // Gives the whole result to the caller. An empty result leaves every
    // array null.
    void hand_out(const RangeOut& out);
    // Releases everything and starts afresh.
    void clear();

private:
    // Makes room for member m in the member arrays, which grow by what the
    // reader holds and at least double, never past n_. False when the
    // memory manager said no.
    bool make_room(std::size_t m, std::size_t backed);
    // Puts item i (bytes followed by the suffix and a zero byte its length
    // does not count) into items and lens; notes a refused buffer.
    void store_item(const MmBuffer& items, const MmBuffer& lens, std::size_t i,
                    const char* bytes, std::size_t len);
    template <class T>
    T* array(const MmBuffer& b) const { return reinterpret_cast<T*>(b.get()); }

    kv_mm* mm_;
    std::string_view suffix_;
    bool with_scores_;
    bool with_values_;
    bool no_memory_ = false;
    std::size_t n_ = 0;         // members announced
    std::size_t room_ = 0;      // entries in the member arrays
    std::size_t values_n_ = 0;  // entries in the value arrays
    MmBuffer members_, members_len_, scores_, values_, values_len_;
};

}  // namespace kelvane

#endif  // KELVANE_RANGE_BUILDER_H
