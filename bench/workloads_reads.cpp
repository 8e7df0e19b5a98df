// workloads_reads.cpp -- the point reads: kv_zscore against ZSCORE + HGET
// pipelined, kv_zrank against ZRANK, on a set of 1,000 members with values.
// The calls go round every member, so every score and rank is checked.
#include <cstdlib>
#include <memory>

#include "data_set.h"
#include "workload.h"

namespace kelvane_bench {
namespace {

constexpr std::uint64_t kMembers = 1000;

// Both reads work on the same shape of data: kMembers members with values.
class PointRead : public Workload {
public:
    PointRead(const char* name, const char* tag)
        : Workload(name, tag, 1.0, 1.3), data_(make_data_set(kMembers, true)) {}
    int check_calls() const override { return kMembers; }
    void prepare(Sides& sides) override {
        clear_both(sides, keys());
        fill_lib(sides, keys().lib, data_);
        fill_native(sides.admin, keys().raw_main, keys().raw_values, data_);
    }

protected:
    const std::string& member(std::uint64_t i) const { return data_.members[i % kMembers]; }

private:
    DataSet data_;
};

class Zscore : public PointRead {
public:
    Zscore() : PointRead("kv_zscore", "zscore") {}

    std::string call(Sides& sides, Side side, std::uint64_t i, CallResult* out) override {
        const std::string& m = member(i);
        if (side == Side::lib) {
            double score = 0;
            char* value = nullptr;
            size_t value_len = 0;
            const int32_t st = kv_zscore(sides.client, keys().lib.data(), keys().lib.size(),
                                         m.data(), m.size(), &score, &value, &value_len);
            if (st != KV_SUCCESS) return "kv_zscore: " + status_text(st);
            if (out) {
                out->outcome = "found";
                out->add_score(score);
                out->values.emplace_back();
                if (value) out->values.back() = std::string(value, value_len);
            }
            sides.mm->release(value);
            return "";
        }
        const char* zscore[] = {"ZSCORE", keys().raw_main.data(), m.data()};
        const size_t zscore_lens[] = {6, keys().raw_main.size(), m.size()};
        const char* hget[] = {"HGET", keys().raw_values.data(), m.data()};
        const size_t hget_lens[] = {4, keys().raw_values.size(), m.size()};
        sides.raw.append(3, zscore, zscore_lens);
        sides.raw.append(3, hget, hget_lens);
        Reply score = sides.raw.next_reply();
        Reply value = sides.raw.next_reply();
        std::string failure = reply_failure(score.get(), "ZSCORE") + reply_failure(value.get(), "HGET");
        if (!failure.empty()) return failure;
        if (score->type != REDIS_REPLY_STRING) return "ZSCORE: member missing";
        const double parsed = std::strtod(score->str, nullptr);
        if (out) {
            out->outcome = "found";
            out->add_score(parsed);
            out->values.emplace_back();
            if (value->type == REDIS_REPLY_STRING) {
                out->values.back() = std::string(value->str, value->len);
            }
        }
        return "";
    }
};

class Zrank : public PointRead {
public:
    Zrank() : PointRead("kv_zrank", "zrank") {}

    std::string call(Sides& sides, Side side, std::uint64_t i, CallResult* out) override {
        const std::string& m = member(i);
        long long rank = 0;
        if (side == Side::lib) {
            uint32_t r = 0;
            const int32_t st = kv_zrank(sides.client, keys().lib.data(), keys().lib.size(),
                                        m.data(), m.size(), &r, ZSET_DEFAULT);
            if (st != KV_SUCCESS) return "kv_zrank: " + status_text(st);
            rank = r;
        } else {
            const char* argv[] = {"ZRANK", keys().raw_main.data(), m.data()};
            const size_t lens[] = {5, keys().raw_main.size(), m.size()};
            sides.raw.append(3, argv, lens);
            Reply reply = sides.raw.next_reply();
            std::string failure = reply_failure(reply.get(), "ZRANK");
            if (!failure.empty()) return failure;
            if (reply->type != REDIS_REPLY_INTEGER) return "ZRANK: member missing";
            rank = reply->integer;
        }
        if (out) out->outcome = "rank=" + std::to_string(rank);
        return "";
    }
};

}  // namespace

std::vector<std::unique_ptr<Workload>> point_read_workloads() {
    std::vector<std::unique_ptr<Workload>> out;
    out.push_back(std::make_unique<Zscore>());
    out.push_back(std::make_unique<Zrank>());
    return out;
}

}  // namespace kelvane_bench
