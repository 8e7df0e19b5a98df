// workloads_removal.cpp -- kv_zremrangebyscore against ZREMRANGEBYSCORE.
//
// Each call removes the 100 members scored 100..199 from a set of 1,000.
// Before every call, untimed, the same native ZADD on the admin connection
// puts them back on whichever side is about to run, so both sides always
// remove from the same full set. The members carry no values: the native
// command leaves a values hash alone, while the library also clears the
// values of what it removes, and with values present the two would neither
// do the same work nor end in the same state.
#include <memory>
#include <string>

#include "data_set.h"
#include "workload.h"

namespace kelvane_bench {
namespace {

constexpr std::uint64_t kMembers = 1000;
constexpr std::uint64_t kFirst = 100;
constexpr std::uint64_t kRemoved = 100;

class Zremrangebyscore : public Workload {
public:
    Zremrangebyscore()
        : Workload("kv_zremrangebyscore 100", "zremrange", 0.9),
          low_text_(std::to_string(kFirst)),
          high_text_(std::to_string(kFirst + kRemoved - 1)) {
        for (std::uint64_t i = 0; i < kMembers; ++i) {
            const bool refilled = i >= kFirst && i < kFirst + kRemoved;
            full_.members.push_back(member_name(i));
            full_.scores.push_back(static_cast<double>(i));
            if (refilled) {
                refill_.members.push_back(member_name(i));
                refill_.scores.push_back(static_cast<double>(i));
            }
        }
    }
    int check_calls() const override { return 5; }
    bool compares_end_state() const override { return true; }
    void prepare(Sides& sides) override {
        clear_both(sides, keys());
        fill_native(sides.admin, keys().lib_main, keys().lib_values, full_);
        fill_native(sides.admin, keys().raw_main, keys().raw_values, full_);
    }
    void before_call(Sides& sides, Side side, std::uint64_t) override {
        if (side == Side::lib) {
            fill_native(sides.admin, keys().lib_main, keys().lib_values, refill_);
        } else {
            fill_native(sides.admin, keys().raw_main, keys().raw_values, refill_);
        }
    }

    std::string call(Sides& sides, Side side, std::uint64_t, CallResult* out) override {
        long long removed = 0;
        if (side == Side::lib) {
            uint32_t n = 0;
            const int32_t st = kv_zremrangebyscore(sides.client, keys().lib.data(),
                                                   keys().lib.size(), kLow, kHigh, &n);
            if (st != KV_SUCCESS) return "kv_zremrangebyscore: " + status_text(st);
            removed = n;
        } else {
            const char* argv[] = {"ZREMRANGEBYSCORE", keys().raw_main.data(), low_text_.data(),
                                  high_text_.data()};
            const size_t lens[] = {16, keys().raw_main.size(), low_text_.size(), high_text_.size()};
            sides.raw.append(4, argv, lens);
            Reply reply = sides.raw.next_reply();
            std::string failure = reply_failure(reply.get(), "ZREMRANGEBYSCORE");
            if (!failure.empty()) return failure;
            removed = reply->integer;
        }
        // A check records what came back; a timed call that removed the
        // wrong number is a failure, never a measurement.
        if (out) out->outcome = "removed=" + std::to_string(removed);
        if (!out && removed != static_cast<long long>(kRemoved)) {
            return "removed " + std::to_string(removed) + " members";
        }
        return "";
    }

private:
    static constexpr double kLow = kFirst;
    static constexpr double kHigh = kFirst + kRemoved - 1;
    std::string low_text_, high_text_;
    DataSet full_;
    DataSet refill_;
};

}  // namespace

std::vector<std::unique_ptr<Workload>> removal_workloads() {
    std::vector<std::unique_ptr<Workload>> out;
    out.push_back(std::make_unique<Zremrangebyscore>());
    return out;
}

}  // namespace kelvane_bench
