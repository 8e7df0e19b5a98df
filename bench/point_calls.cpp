// point_calls.cpp -- the point reads on each way, and the check of their
// answers against the data set.
#include "point_calls.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "call_result.h"
#include "raw_connection.h"
#include "workload.h"

namespace kelvane_bench {
namespace {

bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool same_bytes(const char* bytes, std::size_t len, const std::string& expected) {
    return bytes != nullptr && len == expected.size() && std::memcmp(bytes, expected.data(), len) == 0;
}

std::string score_words(double score) {
    char text[40];
    score_text(score, text, sizeof text);
    return text;
}

// What a wrong answer was, against what member m holds; made only when an
// answer is wrong.
std::string wrong_score(const PointSet& set, std::size_t m, double score, const char* value,
                        std::size_t value_len) {
    return set.data.members[m] + ": read score " + score_words(score) + " value \"" +
           (value ? std::string(value, value_len) : std::string("(none)")) + "\", holds " +
           score_words(set.data.scores[m]) + " \"" + set.data.values[m] + "\"";
}

std::string wrong_rank(const PointSet& set, std::size_t m, long long rank) {
    return set.data.members[m] + ": read rank " + std::to_string(rank) + ", holds rank " +
           std::to_string(m);
}

class LibraryRead : public PointCaller {
public:
    LibraryRead(PointOp op, const PointSet& set, kv_client* client, kv_mm* mm)
        : op_(op), set_(set), client_(client), mm_(mm) {}

    Verdict call(std::size_t m, std::string& why) override {
        const std::string& key = set_.lib_key;
        const std::string& member = set_.data.members[m];
        if (op_ == PointOp::zrank) {
            uint32_t rank = 0;
            const int32_t st = kv_zrank(client_, key.data(), key.size(), member.data(), member.size(),
                                        &rank, ZSET_DEFAULT);
            if (st != KV_SUCCESS) {
                why = "kv_zrank: " + status_text(st);
                return Verdict::failed;
            }
            if (rank == m) return Verdict::ok;
            why = wrong_rank(set_, m, rank);
            return Verdict::wrong;
        }
        double score = 0;
        char* value = nullptr;
        std::size_t value_len = 0;
        const int32_t st = kv_zscore(client_, key.data(), key.size(), member.data(), member.size(),
                                     &score, &value, &value_len);
        Verdict verdict = Verdict::ok;
        if (st != KV_SUCCESS) {
            why = "kv_zscore: " + status_text(st);
            verdict = Verdict::failed;
        } else if (!same_bits(score, set_.data.scores[m]) ||
                   !same_bytes(value, value_len, set_.data.values[m])) {
            why = wrong_score(set_, m, score, value, value_len);
            verdict = Verdict::wrong;
        }
        mm_->release(value);
        return verdict;
    }

private:
    PointOp op_;
    const PointSet& set_;
    kv_client* client_;
    kv_mm* mm_;
};

class RawRead : public PointCaller {
public:
    RawRead(PointOp op, const PointSet& set, int port)
        : op_(op), set_(set), port_(port), conn_(std::make_unique<RawConnection>(port)) {}

    Verdict call(std::size_t m, std::string& why) override {
        try {
            // hiredis gives up on a connection after a transport failure;
            // a raw program would connect again, and so does this one.
            if (conn_->context()->err != 0) conn_ = std::make_unique<RawConnection>(port_);
            return op_ == PointOp::zrank ? zrank(m, why) : zscore(m, why);
        } catch (const std::exception& e) {
            why = e.what();
            return Verdict::failed;
        }
    }

private:
    Verdict zscore(std::size_t m, std::string& why) {
        const std::string& member = set_.data.members[m];
        const char* zscore[] = {"ZSCORE", set_.raw_main.data(), member.data()};
        const size_t zscore_lens[] = {6, set_.raw_main.size(), member.size()};
        const char* hget[] = {"HGET", set_.raw_values.data(), member.data()};
        const size_t hget_lens[] = {4, set_.raw_values.size(), member.size()};
        conn_->append(3, zscore, zscore_lens);
        conn_->append(3, hget, hget_lens);
        Reply score = conn_->next_reply();
        Reply value = conn_->next_reply();
        why = reply_failure(score.get(), "ZSCORE") + reply_failure(value.get(), "HGET");
        if (!why.empty()) return Verdict::failed;
        if (score->type != REDIS_REPLY_STRING) {
            why = "ZSCORE: " + member + " missing";
            return Verdict::failed;
        }
        const double parsed = std::strtod(score->str, nullptr);
        const bool has_value = value->type == REDIS_REPLY_STRING;
        const char* bytes = has_value ? value->str : nullptr;
        const std::size_t len = has_value ? value->len : 0;
        if (same_bits(parsed, set_.data.scores[m]) && same_bytes(bytes, len, set_.data.values[m])) {
            return Verdict::ok;
        }
        why = wrong_score(set_, m, parsed, bytes, len);
        return Verdict::wrong;
    }

    Verdict zrank(std::size_t m, std::string& why) {
        const std::string& member = set_.data.members[m];
        const char* argv[] = {"ZRANK", set_.raw_main.data(), member.data()};
        const size_t lens[] = {5, set_.raw_main.size(), member.size()};
        conn_->append(3, argv, lens);
        Reply reply = conn_->next_reply();
        why = reply_failure(reply.get(), "ZRANK");
        if (!why.empty()) return Verdict::failed;
        if (reply->type != REDIS_REPLY_INTEGER) {
            why = "ZRANK: " + member + " missing";
            return Verdict::failed;
        }
        if (reply->integer == static_cast<long long>(m)) return Verdict::ok;
        why = wrong_rank(set_, m, reply->integer);
        return Verdict::wrong;
    }

    PointOp op_;
    const PointSet& set_;
    int port_;
    std::unique_ptr<RawConnection> conn_;
};

}  // namespace

const char* op_name(PointOp op) { return op == PointOp::zrank ? "kv_zrank" : "kv_zscore"; }

const char* native_work(PointOp op) {
    return op == PointOp::zrank ? "ZRANK" : "ZSCORE + HGET, pipelined";
}

PointSet make_point_set(std::size_t members) {
    PointSet set;
    set.lib_key = "L:threads";
    set.raw_main = "kv{R:threads}";
    set.raw_values = set.raw_main + ":v";
    set.data = make_data_set(members, true);
    return set;
}

std::unique_ptr<PointCaller> library_caller(PointOp op, const PointSet& set, kv_client* client,
                                            kv_mm* mm) {
    return std::make_unique<LibraryRead>(op, set, client, mm);
}

std::unique_ptr<PointCaller> raw_caller(PointOp op, const PointSet& set, int port) {
    return std::make_unique<RawRead>(op, set, port);
}

}  // namespace kelvane_bench
