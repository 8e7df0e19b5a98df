// workloads_writes.cpp -- the sorted-set writes: kv_zadd against ZADD,
// kv_zaddval against ZADD + HSET pipelined, kv_zmaddval of 1,000 members
// against one ZADD and one HSET of 1,000 pairs each, pipelined, and
// kv_zincrby against ZINCRBY.
//
// Each write goes round a fixed cycle of members, so after the first pass
// every call updates an existing member and the sets stay the same size
// however long a round runs. Values alternate between two texts from pass to
// pass, so an update that failed to replace a value shows in the end state.
#include <cstdlib>
#include <memory>
#include <vector>

#include "data_set.h"
#include "workload.h"

namespace kelvane_bench {
namespace {

constexpr std::uint64_t kCycle = 100;      // members the single writes go round
constexpr std::uint64_t kBatch = 1000;     // members of one kv_zmaddval
constexpr size_t kScoreRoom = 32;          // bytes for one score text

// The value member j gets on pass `pass`.
const std::string& value_for(const DataSet& even, const std::vector<std::string>& odd,
                             std::uint64_t pass, std::uint64_t j) {
    return pass % 2 == 0 ? even.values[j] : odd[j];
}

std::vector<std::string> second_values(std::uint64_t count) {
    std::vector<std::string> out;
    for (std::uint64_t j = 0; j < count; ++j) out.push_back(value_text(j + 5000000));
    return out;
}

class Zadd : public Workload {
public:
    Zadd() : Workload("kv_zadd", "zadd", 0.9), data_(make_data_set(kCycle, false)) {}
    int check_calls() const override { return 2 * kCycle; }
    bool compares_end_state() const override { return true; }
    void prepare(Sides& sides) override { clear_both(sides, keys()); }

    std::string call(Sides& sides, Side side, std::uint64_t i, CallResult* out) override {
        const std::string& member = data_.members[i % kCycle];
        const double score = score_of(i);
        if (side == Side::lib) {
            const int32_t st = kv_zadd(sides.client, keys().lib.data(), keys().lib.size(), score,
                                       member.data(), member.size(), 0);
            if (st != KV_SUCCESS && st != KV_ALREADY_EXISTS) return "kv_zadd: " + status_text(st);
            if (out) out->outcome = st == KV_SUCCESS ? "added" : "updated";
            return "";
        }
        char text[kScoreRoom];
        const int len = score_text(score, text, sizeof text);
        const char* argv[] = {"ZADD", keys().raw_main.data(), text, member.data()};
        const size_t lens[] = {4, keys().raw_main.size(), static_cast<size_t>(len), member.size()};
        sides.raw.append(4, argv, lens);
        Reply reply = sides.raw.next_reply();
        std::string failure = reply_failure(reply.get(), "ZADD");
        if (failure.empty() && out) out->outcome = reply->integer == 1 ? "added" : "updated";
        return failure;
    }

private:
    DataSet data_;
};

class Zaddval : public Workload {
public:
    Zaddval()
        : Workload("kv_zaddval", "zaddval", 0.9),
          data_(make_data_set(kCycle, true)),
          odd_values_(second_values(kCycle)) {}
    int check_calls() const override { return 2 * kCycle; }
    bool compares_end_state() const override { return true; }
    void prepare(Sides& sides) override { clear_both(sides, keys()); }

    std::string call(Sides& sides, Side side, std::uint64_t i, CallResult* out) override {
        const std::string& member = data_.members[i % kCycle];
        const std::string& value = value_for(data_, odd_values_, i / kCycle, i % kCycle);
        const double score = score_of(i);
        if (side == Side::lib) {
            const int32_t st = kv_zaddval(sides.client, keys().lib.data(), keys().lib.size(),
                                          score, member.data(), member.size(), value.data(),
                                          value.size(), 0);
            if (st != KV_SUCCESS && st != KV_ALREADY_EXISTS) {
                return "kv_zaddval: " + status_text(st);
            }
            if (out) out->outcome = st == KV_SUCCESS ? "added" : "updated";
            return "";
        }
        char text[kScoreRoom];
        const int len = score_text(score, text, sizeof text);
        const char* zadd[] = {"ZADD", keys().raw_main.data(), text, member.data()};
        const size_t zadd_lens[] = {4, keys().raw_main.size(), static_cast<size_t>(len),
                                    member.size()};
        const char* hset[] = {"HSET", keys().raw_values.data(), member.data(), value.data()};
        const size_t hset_lens[] = {4, keys().raw_values.size(), member.size(), value.size()};
        sides.raw.append(4, zadd, zadd_lens);
        sides.raw.append(4, hset, hset_lens);
        Reply added = sides.raw.next_reply();
        Reply set = sides.raw.next_reply();
        std::string failure = reply_failure(added.get(), "ZADD") + reply_failure(set.get(), "HSET");
        if (failure.empty() && out) out->outcome = added->integer == 1 ? "added" : "updated";
        return failure;
    }

private:
    DataSet data_;
    std::vector<std::string> odd_values_;
};

class Zmaddval : public Workload {
public:
    Zmaddval()
        : Workload("kv_zmaddval 1000", "zmaddval", 0.9),
          data_(make_data_set(kBatch, true)),
          odd_values_(second_values(kBatch)),
          scores_(kBatch),
          score_texts_(kBatch * kScoreRoom) {
        // The arguments that stay the same from call to call are laid out
        // once, as a raw hiredis program would.
        for (std::uint64_t j = 0; j < kBatch; ++j) {
            members_.push_back(data_.members[j].data());
            member_lens_.push_back(data_.members[j].size());
        }
        zadd_argv_ = {"ZADD", keys().raw_main.data()};
        zadd_lens_ = {4, keys().raw_main.size()};
        for (std::uint64_t j = 0; j < kBatch; ++j) {
            zadd_argv_.push_back(&score_texts_[j * kScoreRoom]);
            zadd_lens_.push_back(0);
            zadd_argv_.push_back(members_[j]);
            zadd_lens_.push_back(member_lens_[j]);
        }
        for (int pass = 0; pass < 2; ++pass) {
            auto& values = value_ptrs_[pass];
            auto& lens = value_lens_[pass];
            auto& argv = hset_argv_[pass];
            auto& argv_lens = hset_lens_[pass];
            argv = {"HSET", keys().raw_values.data()};
            argv_lens = {4, keys().raw_values.size()};
            for (std::uint64_t j = 0; j < kBatch; ++j) {
                const std::string& v = value_for(data_, odd_values_, pass, j);
                values.push_back(v.data());
                lens.push_back(v.size());
                argv.push_back(members_[j]);
                argv_lens.push_back(member_lens_[j]);
                argv.push_back(v.data());
                argv_lens.push_back(v.size());
            }
        }
    }
    int check_calls() const override { return 3; }
    bool compares_end_state() const override { return true; }
    void prepare(Sides& sides) override { clear_both(sides, keys()); }

    std::string call(Sides& sides, Side side, std::uint64_t i, CallResult* out) override {
        const int pass = static_cast<int>(i % 2);
        if (side == Side::lib) {
            for (std::uint64_t j = 0; j < kBatch; ++j) scores_[j] = score_of(i + j);
            const int32_t st = kv_zmaddval(sides.client, keys().lib.data(), keys().lib.size(),
                                           scores_.data(), members_.data(), kBatch,
                                           member_lens_.data(), value_ptrs_[pass].data(),
                                           value_lens_[pass].data(), 0);
            if (st != KV_SUCCESS && st != KV_ALREADY_EXISTS) {
                return "kv_zmaddval: " + status_text(st);
            }
            if (out) out->outcome = st == KV_SUCCESS ? "all new" : "some existed";
            return "";
        }
        for (std::uint64_t j = 0; j < kBatch; ++j) {
            zadd_lens_[2 + 2 * j] = static_cast<size_t>(
                score_text(score_of(i + j), &score_texts_[j * kScoreRoom], kScoreRoom));
        }
        sides.raw.append(static_cast<int>(zadd_argv_.size()), zadd_argv_.data(), zadd_lens_.data());
        sides.raw.append(static_cast<int>(hset_argv_[pass].size()), hset_argv_[pass].data(),
                         hset_lens_[pass].data());
        Reply added = sides.raw.next_reply();
        Reply set = sides.raw.next_reply();
        std::string failure = reply_failure(added.get(), "ZADD") + reply_failure(set.get(), "HSET");
        if (failure.empty() && out) {
            out->outcome = added->integer == static_cast<long long>(kBatch) ? "all new"
                                                                            : "some existed";
        }
        return failure;
    }

private:
    DataSet data_;
    std::vector<std::string> odd_values_;
    std::vector<double> scores_;
    std::vector<char> score_texts_;
    std::vector<const char*> members_;
    std::vector<size_t> member_lens_;
    std::vector<const char*> value_ptrs_[2];
    std::vector<size_t> value_lens_[2];
    std::vector<const char*> zadd_argv_;
    std::vector<size_t> zadd_lens_;
    std::vector<const char*> hset_argv_[2];
    std::vector<size_t> hset_lens_[2];
};

class Zincrby : public Workload {
public:
    Zincrby() : Workload("kv_zincrby", "zincrby", 0.9), data_(make_data_set(kCycle, false)) {
        char text[kScoreRoom];
        increment_text_.assign(text, static_cast<size_t>(score_text(kIncrement, text, sizeof text)));
    }
    int check_calls() const override { return 2 * kCycle; }
    bool compares_end_state() const override { return true; }
    void prepare(Sides& sides) override { clear_both(sides, keys()); }

    std::string call(Sides& sides, Side side, std::uint64_t i, CallResult* out) override {
        const std::string& member = data_.members[i % kCycle];
        double score = 0;
        if (side == Side::lib) {
            const int32_t st = kv_zincrby(sides.client, keys().lib.data(), keys().lib.size(),
                                          member.data(), member.size(), kIncrement, &score, 0);
            if (st != KV_SUCCESS) return "kv_zincrby: " + status_text(st);
        } else {
            const char* argv[] = {"ZINCRBY", keys().raw_main.data(), increment_text_.data(),
                                  member.data()};
            const size_t lens[] = {7, keys().raw_main.size(), increment_text_.size(),
                                   member.size()};
            sides.raw.append(4, argv, lens);
            Reply reply = sides.raw.next_reply();
            std::string failure = reply_failure(reply.get(), "ZINCRBY");
            if (!failure.empty()) return failure;
            score = std::strtod(reply->str, nullptr);
        }
        if (out) {
            out->outcome = "incremented";
            out->add_score(score);
        }
        return "";
    }

private:
    // A tenth has no exact binary form, so the sums drift in the last bits
    // and only an exact path returns them unchanged.
    static constexpr double kIncrement = 0.1;
    DataSet data_;
    std::string increment_text_;
};

}  // namespace

std::vector<std::unique_ptr<Workload>> write_workloads() {
    std::vector<std::unique_ptr<Workload>> out;
    out.push_back(std::make_unique<Zadd>());
    out.push_back(std::make_unique<Zaddval>());
    out.push_back(std::make_unique<Zmaddval>());
    out.push_back(std::make_unique<Zincrby>());
    return out;
}

}  // namespace kelvane_bench
