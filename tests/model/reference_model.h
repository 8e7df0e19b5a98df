// reference_model.h -- what a kelvane store should hold, kept in memory by
// the model test: per key its kind, its members with score and optional
// value (or a plain set's members), and when it expires. Writes are first
// predicted from this state, then made through the library, then applied
// here, so every status and every result can be compared with it.
#ifndef KELVANE_TESTS_MODEL_REFERENCE_MODEL_H
#define KELVANE_TESTS_MODEL_REFERENCE_MODEL_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kelvane_model {

struct Member {
    double score = 0;
    std::optional<std::string> value;
};

// When a call ran, on the wall clock the server also keeps expiries by: the
// server did its work somewhere between before_ms and after_ms.
struct CallTime {
    int64_t before_ms = 0;
    int64_t after_ms = 0;
};

// An expiry set by a call with t seconds falls in [before + t, after + t].
struct Expiry {
    int64_t earliest_ms = 0;
    int64_t latest_ms = 0;
};

enum class Kind { Sorted, Plain };

struct KeyState {
    Kind kind = Kind::Sorted;
    std::map<std::string, Member> members;  // Sorted
    std::set<std::string> plain;            // Plain
    std::optional<Expiry> expiry;
};

// A member with its name, as the range reads list them.
struct Entry {
    std::string name;
    Member member;
};

class ReferenceModel {
public:
    const KeyState* find(const std::string& key) const;
    bool holds(const std::string& key, Kind kind) const;

    // The key's state for a write that landed; created (empty, of the given
    // kind) when absent. existed says whether it was there before.
    KeyState& open(const std::string& key, Kind kind, bool& existed);
    // The time-to-live rule every write follows: a write that created the
    // key gives it ttl (0: none); on an existing key only a committed ttl
    // replaces the expiry (COMMIT_TTL(0) removes it).
    static void apply_ttl(KeyState& state, bool existed, int32_t ttl, const CallTime& at);
    // A sorted set that lost its last member is gone, expiry and all.
    void drop_if_empty(const std::string& key);
    void erase(const std::string& key);
    size_t size() const { return keys_.size(); }

    // Members in ascending score order, equal scores by the bytes of their
    // names (unsigned); reverse turns the whole order round.
    static std::vector<Entry> ordered(const KeyState& state, bool reverse);
    // The ranks start..stop of an ordered list, negative ranks counting from
    // the end, clamped to the list as the store clamps them.
    static std::vector<Entry> rank_slice(const std::vector<Entry>& list, int64_t start, int64_t stop);
    // The highest score, or none for an empty or absent set.
    static std::optional<double> highest(const KeyState* state);
    // The member name kv_zaddmaxinc gives a score: whole numbers as integers
    // in full, others in the shortest text that reads back as the same double.
    static std::string score_name(double score);

private:
    std::map<std::string, KeyState> keys_;
};

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_REFERENCE_MODEL_H
