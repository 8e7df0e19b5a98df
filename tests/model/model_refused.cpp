// model_refused.cpp -- arguments the library refuses with
// KV_INVALID_PARAMETER before anything reaches the server, made on whatever
// the random keys hold just then (absent, a plain set, a sorted set), and a
// client made anew in the middle of a run. The model does not change, so
// later reads prove the refusals changed nothing.
#include <cmath>

#include "byte_text.h"
#include "model_run.h"
#include "range_call.h"

namespace kelvane_model {

void ModelRun::refused() {
    const std::string k = key(), m = member(k), v = value();
    const char *kp = k.data(), *mp = m.data(), *vp = v.data();
    const size_t kl = k.size(), ml = m.size(), vl = v.size();
    const double nan = std::nan(""), one = 1;
    const size_t one_len = 1;
    const char* const one_name[] = {"x"};
    const int32_t neg = pick(std::vector<int32_t>{-1, -3600, INT32_MIN, COMMIT_TTL(-1)});
    const std::string with_neg = " with time-to-live " + std::to_string(neg);
    // Out-parameters, set to something the library must overwrite.
    double sc = 42;
    uint32_t n = 99;
    int32_t t = 77;
    char junk[8] = "junk";
    char* text = junk;
    size_t len = 7;

    // Which of them the call takes: those must come back cleared.
    enum class Out { None, Score, Count, Ttl, Kept, ScoreAndValue } out = Out::None;
    std::string what;
    int32_t status = -1;
    switch (below(17)) {
        case 0:
            what = "kv_zadd" + with_neg;
            status = kv_zadd(client_, kp, kl, 1, mp, ml, neg);
            break;
        case 1:
            what = "kv_zaddval" + with_neg;
            status = kv_zaddval(client_, kp, kl, 1, mp, ml, vp, vl, neg);
            break;
        case 2:
            what = "kv_zmadd" + with_neg;
            status = kv_zmadd(client_, kp, kl, &one, &mp, 1, &ml, neg);
            break;
        case 3:
            what = "kv_zmaddval" + with_neg;
            status = kv_zmaddval(client_, kp, kl, &one, &mp, 1, &ml, &vp, &vl, neg);
            break;
        case 4:
            what = "kv_zaddvalmax" + with_neg;
            status = kv_zaddvalmax(client_, kp, kl, mp, ml, vp, vl, 1, neg);
            break;
        case 5:
            what = "kv_zaddmaxinc" + with_neg;
            status = kv_zaddmaxinc(client_, kp, kl, 1, neg);
            break;
        case 6:
            what = "kv_zadddis" + with_neg;
            status = kv_zadddis(client_, kp, kl, 1, mp, ml, 5, &text, neg);
            out = Out::Kept;
            break;
        case 7:
            what = "kv_zincrby" + with_neg;
            status = kv_zincrby(client_, kp, kl, mp, ml, 1, &sc, neg);
            out = Out::Score;
            break;
        case 8:
            what = "kv_sadd" + with_neg;
            status = kv_sadd(client_, kp, kl, mp, ml, neg);
            break;
        case 9: {
            // One NaN refuses the whole batch.
            const double scores[] = {1, nan};
            const char* names[] = {mp, "y"};
            const size_t lens[] = {ml, 1};
            what = "kv_zmadd with a NaN score";
            status = kv_zmadd(client_, kp, kl, scores, names, 2, lens, 0);
            break;
        }
        case 10:
            what = "kv_zaddval with a NaN score";
            status = kv_zaddval(client_, kp, kl, nan, mp, ml, vp, vl, 0);
            break;
        case 11:
            what = "kv_zincrby by NaN";
            status = kv_zincrby(client_, kp, kl, mp, ml, nan, &sc, 0);
            out = Out::Score;
            break;
        case 12:
            what = "kv_zadddis with a NaN drift";
            status = kv_zadddis(client_, kp, kl, 1, mp, ml, nan, &text, 0);
            out = Out::Kept;
            break;
        case 13:
            what = "kv_zcount from NaN";
            status = kv_zcount(client_, kp, kl, nan, 1, &n);
            out = Out::Count;
            break;
        case 14:
            what = "kv_zremrangebyscore to NaN";
            status = kv_zremrangebyscore(client_, kp, kl, 0, nan, &n);
            out = Out::Count;
            break;
        case 15: {
            RangeQuery q;
            q.by = RangeBy::Score;
            q.min = nan;
            q.max = 1;
            q.flags = ZSET_WITH_SCORES;
            const RangeResult got = read_range(client_, mm_.get(), k, q);
            begin(describe(k, q));
            expect(got.fault.empty(), got.fault);
            return expect_status(got.status, KV_INVALID_PARAMETER);
        }
        default:
            switch (below(5)) {
                case 0:
                    what = "kv_zmadd of 0 members";
                    status = kv_zmadd(client_, kp, kl, &one, one_name, 0, &one_len, 0);
                    break;
                case 1:
                    what = "kv_zmrem of 0 members";
                    status = kv_zmrem(client_, kp, kl, one_name, 0, &one_len, &n);
                    out = Out::Count;
                    break;
                case 2:
                    what = "kv_zscore of a null member of length 2";
                    status = kv_zscore(client_, kp, kl, nullptr, 2, &sc, &text, &len);
                    out = Out::ScoreAndValue;
                    break;
                case 3:
                    what = "kv_zaddval of a null value of length 2";
                    status = kv_zaddval(client_, kp, kl, 1, mp, ml, nullptr, 2, 0);
                    break;
                default:
                    what = "kv_get_ttl of a null key of length 3 (not the key named here)";
                    status = kv_get_ttl(client_, nullptr, 3, &t);
                    out = Out::Ttl;
            }
    }
    begin(what + " on " + quoted(k));
    expect_status(status, KV_INVALID_PARAMETER);
    const bool score_out = out == Out::Score || out == Out::ScoreAndValue;
    const bool text_out = out == Out::Kept || out == Out::ScoreAndValue;
    expect(sc == (score_out ? 0 : 42), "the score out-parameter was left at " + std::to_string(sc));
    expect(n == (out == Out::Count ? 0 : 99), "the count out-parameter was left at " + std::to_string(n));
    expect(t == (out == Out::Ttl ? 0 : 77), "the time-to-live out-parameter was left at " + std::to_string(t));
    expect(text == (text_out ? nullptr : junk), "the pointer out-parameter was not cleared");
    expect(len == (out == Out::ScoreAndValue ? 0 : 7), "the length out-parameter was left at " + std::to_string(len));
}

void ModelRun::reconnect() {
    begin("kv_client_destroy, then kv_client_create and kv_server_add on the same memory manager");
    kv_client_destroy(client_);
    client_ = nullptr;
    connect();
}

}  // namespace kelvane_model
