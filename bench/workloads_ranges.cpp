// workloads_ranges.cpp -- the range reads with scores and values, by rank
// (kv_zrange) and by score (kv_zrangebyscore), of 100, 10,000 and 100,000
// members, and the first 10 of 1,000. The raw side does the native work a hiredis program needs for the
// same result: ZRANGE ... WITHSCORES (with BYSCORE for the score range), then
// HMGET of the values hash with the members it got, and it ends holding the
// same data the library hands out: every member, every score as a double
// and every value (here in the two replies plus an array of scores).
#include <cstdlib>
#include <memory>

#include "data_set.h"
#include "workload.h"

namespace kelvane_bench {
namespace {

constexpr int32_t kFlags = ZSET_WITH_SCORES | ZSET_WITH_VALUES;

class RangeRead : public Workload {
public:
    // A read of every member of a set of size members, or, with `first`, of
    // the ranks 0 to first - 1 of it.
    RangeRead(bool by_score, std::uint64_t size, std::uint64_t first = 0)
        : Workload(std::string(by_score ? "kv_zrangebyscore " : "kv_zrange ") +
                       (first != 0 ? std::to_string(first) + " of " : "") + std::to_string(size),
                   std::string(by_score ? "zrangebyscore" : "zrange") + std::to_string(size) +
                       (first != 0 ? "first" + std::to_string(first) : ""),
                   (first != 0 ? first : size) <= 100 ? 1.0 : 0.9, 1.3),
          by_score_(by_score),
          count_(first != 0 ? first : size),
          stop_(first != 0 ? static_cast<int32_t>(first) - 1 : -1),
          data_(make_data_set(size, true)) {
        // Every score is i/3 for i < size, so [0, size] selects them all.
        max_ = static_cast<double>(size);
        char text[40];
        max_text_.assign(text, static_cast<size_t>(score_text(max_, text, sizeof text)));
    }
    bool reports_peak() const override { return true; }
    bool has_memory_target() const override { return count_ >= 100000; }
    int check_calls() const override { return 1; }
    void prepare(Sides& sides) override {
        clear_both(sides, keys());
        fill_lib(sides, keys().lib, data_);
        fill_native(sides.admin, keys().raw_main, keys().raw_values, data_);
    }

    std::string call(Sides& sides, Side side, std::uint64_t, CallResult* out) override {
        return side == Side::lib ? lib_call(sides, out) : raw_call(sides, out);
    }

private:
    std::string lib_call(Sides& sides, CallResult* out) {
        void** members = nullptr;
        size_t count = 0;
        size_t* member_lens = nullptr;
        double* scores = nullptr;
        void** values = nullptr;
        size_t* value_lens = nullptr;
        const std::string& key = keys().lib;
        const int32_t st =
            by_score_ ? kv_zrangebyscore(sides.client, key.data(), key.size(), 0, max_, &members,
                                         &count, &member_lens, kFlags, &scores, &values,
                                         &value_lens)
                      : kv_zrange(sides.client, key.data(), key.size(), 0, stop_, &members, &count,
                                  &member_lens, kFlags, &scores, &values, &value_lens);
        if (st != KV_SUCCESS) return "range read: " + status_text(st);
        std::string failure;
        // A check records what came back; a timed read of the wrong size is
        // a failure, never a measurement.
        if (!out && count != count_) failure = "range read: " + std::to_string(count) + " members";
        if (out) {
            out->outcome = "count=" + std::to_string(count);
            for (size_t k = 0; k < count; ++k) {
                out->members.emplace_back(static_cast<const char*>(members[k]), member_lens[k]);
                out->add_score(scores[k]);
                out->values.emplace_back();
                if (values[k]) {
                    out->values.back() = std::string(static_cast<const char*>(values[k]),
                                                     value_lens[k]);
                }
            }
        }
        // Giving the buffers back is part of what a caller pays for a read.
        for (size_t k = 0; k < count; ++k) {
            sides.mm->release(members[k]);
            sides.mm->release(values[k]);
        }
        sides.mm->release(members);
        sides.mm->release(member_lens);
        sides.mm->release(scores);
        sides.mm->release(values);
        sides.mm->release(value_lens);
        return failure;
    }

    std::string raw_call(Sides& sides, CallResult* out) {
        const std::string& key = keys().raw_main;
        if (by_score_) {
            const char* argv[] = {"ZRANGE", key.data(), "0", max_text_.data(), "BYSCORE",
                                  "WITHSCORES"};
            const size_t lens[] = {6, key.size(), 1, max_text_.size(), 7, 10};
            sides.raw.append(6, argv, lens);
        } else {
            const std::string stop = std::to_string(stop_);
            const char* argv[] = {"ZRANGE", key.data(), "0", stop.data(), "WITHSCORES"};
            const size_t lens[] = {6, key.size(), 1, stop.size(), 10};
            sides.raw.append(5, argv, lens);
        }
        Reply range = sides.raw.next_reply();
        std::string failure = reply_failure(range.get(), "ZRANGE");
        if (!failure.empty()) return failure;
        const size_t count = range->elements / 2;
        if (!out && count != count_) return "ZRANGE: " + std::to_string(count) + " members";
        std::vector<double> scores(count);
        std::vector<const char*> argv(count + 2);
        std::vector<size_t> lens(count + 2);
        argv[0] = "HMGET";
        lens[0] = 5;
        argv[1] = keys().raw_values.data();
        lens[1] = keys().raw_values.size();
        for (size_t k = 0; k < count; ++k) {
            const redisReply* member = range->element[2 * k];
            scores[k] = std::strtod(range->element[2 * k + 1]->str, nullptr);
            argv[k + 2] = member->str;
            lens[k + 2] = member->len;
        }
        Reply values;
        if (count > 0) {
            sides.raw.append(static_cast<int>(argv.size()), argv.data(), lens.data());
            values = sides.raw.next_reply();
            failure = reply_failure(values.get(), "HMGET");
            if (!failure.empty()) return failure;
        }
        if (out) {
            out->outcome = "count=" + std::to_string(count);
            for (size_t k = 0; k < count; ++k) {
                const redisReply* member = range->element[2 * k];
                const redisReply* value = values->element[k];
                out->members.emplace_back(member->str, member->len);
                out->add_score(scores[k]);
                out->values.emplace_back();
                if (value->type == REDIS_REPLY_STRING) {
                    out->values.back() = std::string(value->str, value->len);
                }
            }
        }
        return "";
    }

    bool by_score_;
    std::uint64_t count_;  // members a read returns
    int32_t stop_;
    DataSet data_;
    double max_;
    std::string max_text_;
};

}  // namespace

std::vector<std::unique_ptr<Workload>> range_workloads() {
    std::vector<std::unique_ptr<Workload>> out;
    for (bool by_score : {false, true}) {
        for (std::uint64_t count : {100, 10000, 100000}) {
            out.push_back(std::make_unique<RangeRead>(by_score, count));
        }
    }
    out.push_back(std::make_unique<RangeRead>(false, 1000, 10));
    return out;
}

}  // namespace kelvane_bench
