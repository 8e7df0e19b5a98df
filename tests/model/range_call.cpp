// range_call.cpp -- range reads with their variadic tails, and their results
// checked for shape and released.
#include "range_call.h"

#include <sstream>

#include "byte_text.h"

namespace kelvane_model {
namespace {

// Where the out-parameters point before the call: the library must write
// every one of them, whatever the status.
alignas(16) char junk_storage[64];
void* const kJunk = junk_storage;

struct Outs {
    void** m = static_cast<void**>(kJunk);
    size_t n = 9;
    size_t* ml = static_cast<size_t*>(kJunk);
    double* s = static_cast<double*>(kJunk);
    void** v = static_cast<void**>(kJunk);
    size_t* vl = static_cast<size_t*>(kJunk);
};

// Calls call(optional arguments...) with the tail that q.flags asks for:
// offset and count, the score array, then the value and value-length arrays.
template <class Call>
int32_t with_tail(const Call& call, const RangeQuery& q, Outs& o) {
    if (!q.pass_optional) return call();
    const int shape = ((q.flags & ZSET_WITH_LIMIT) ? 4 : 0) | ((q.flags & ZSET_WITH_SCORES) ? 1 : 0) |
                      ((q.flags & ZSET_WITH_VALUES) ? 2 : 0);
    switch (shape) {
        case 0: return call();
        case 1: return call(&o.s);
        case 2: return call(&o.v, &o.vl);
        case 3: return call(&o.s, &o.v, &o.vl);
        case 4: return call(q.offset, q.count);
        case 5: return call(q.offset, q.count, &o.s);
        case 6: return call(q.offset, q.count, &o.v, &o.vl);
        default: return call(q.offset, q.count, &o.s, &o.v, &o.vl);
    }
}

int32_t call_range(kv_client* c, const std::string& key, const RangeQuery& q, Outs& o) {
    const char* k = key.data();
    const size_t kl = key.size();
    const char* sfx = q.suffix ? q.suffix->data() : nullptr;
    const size_t sl = q.suffix ? q.suffix->size() : 0;
    if (q.by == RangeBy::Rank && !q.suffix) {
        return with_tail([&](auto... tail) {
            return kv_zrange(c, k, kl, q.start, q.stop, &o.m, &o.n, &o.ml, q.flags, tail...); }, q, o);
    }
    if (q.by == RangeBy::Rank) {
        return with_tail([&](auto... tail) {
            return kv_zrange_whole(c, k, kl, q.start, q.stop, &o.m, &o.n, &o.ml, sfx, sl, q.flags, tail...); }, q, o);
    }
    if (!q.suffix) {
        return with_tail([&](auto... tail) {
            return kv_zrangebyscore(c, k, kl, q.min, q.max, &o.m, &o.n, &o.ml, q.flags, tail...); }, q, o);
    }
    return with_tail([&](auto... tail) {
        return kv_zrangebyscore_whole(c, k, kl, q.min, q.max, &o.m, &o.n, &o.ml, sfx, sl, q.flags, tail...); }, q, o);
}

// An item handed out as a buffer: its bytes, and a fault when the zero byte
// past its length is missing.
std::string item_bytes(const void* item, size_t len, std::string& fault) {
    const char* p = static_cast<const char*>(item);
    if (p[len] != '\0' && fault.empty()) fault = "an item has no zero byte past its length";
    return std::string(p, len);
}

}  // namespace

RangeResult read_range(kv_client* client, kv_mm* mm, const std::string& key, const RangeQuery& q) {
    Outs o;
    RangeResult r;
    r.status = call_range(client, key, q, o);
    const bool scores = q.pass_optional && (q.flags & ZSET_WITH_SCORES);
    const bool values = q.pass_optional && (q.flags & ZSET_WITH_VALUES);
    const bool all_null = o.m == nullptr && o.ml == nullptr && (!scores || o.s == nullptr) &&
                          (!values || (o.v == nullptr && o.vl == nullptr));
    if (r.status != KV_SUCCESS || o.n == 0) {
        if (o.n != 0 || !all_null) {
            r.fault = "status " + std::to_string(r.status) + " with count " + std::to_string(o.n) +
                      " left arrays that are not null (an empty result or a failure leaves every array null)";
        }
        return r;
    }
    const bool unwritten = o.m == kJunk || o.ml == kJunk || (scores && o.s == kJunk) ||
                           (values && (o.v == kJunk || o.vl == kJunk));
    if (unwritten || o.m == nullptr || o.ml == nullptr || (scores && o.s == nullptr) ||
        (values && (o.v == nullptr || o.vl == nullptr))) {
        r.fault = "a result of " + std::to_string(o.n) + " members with an array missing or unwritten";
        return r;  // nothing safe to read or release
    }
    for (size_t k = 0; k < o.n; ++k) {
        if (o.m[k] == nullptr) {
            if (r.fault.empty()) r.fault = "member " + std::to_string(k) + " is a null pointer";
            r.members.emplace_back();
        } else {
            r.members.push_back(item_bytes(o.m[k], o.ml[k], r.fault));
        }
        mm->release(o.m[k]);
        if (scores) r.scores.push_back(o.s[k]);
        if (!values) continue;
        if (o.v[k] == nullptr) {
            if (o.vl[k] != 0 && r.fault.empty()) r.fault = "a missing value has a length that is not 0";
            r.values.emplace_back();
        } else {
            r.values.emplace_back(item_bytes(o.v[k], o.vl[k], r.fault));
            mm->release(o.v[k]);
        }
    }
    mm->release(o.m);
    mm->release(o.ml);
    if (scores) mm->release(o.s);
    if (values) {
        mm->release(o.v);
        mm->release(o.vl);
    }
    return r;
}

std::string describe(const std::string& key, const RangeQuery& q) {
    std::ostringstream out;
    out << (q.by == RangeBy::Rank ? "kv_zrange" : "kv_zrangebyscore") << (q.suffix ? "_whole" : "") << "("
        << quoted(key) << ", ";
    if (q.by == RangeBy::Rank) {
        out << q.start << ", " << q.stop;
    } else {
        out << score_text(q.min) << ", " << score_text(q.max);
    }
    if (q.suffix) out << ", suffix " << quoted(*q.suffix);
    out << ", flags";
    if (q.flags == 0) out << " DEFAULT";
    if (q.flags & ZSET_WITH_SCORES) out << " SCORES";
    if (q.flags & ZSET_WITH_VALUES) out << " VALUES";
    if (q.flags & ZSET_WITH_LIMIT) out << " LIMIT";
    if (q.flags & ZSET_REVERSE) out << " REVERSE";
    if (q.flags & ~(ZSET_WITH_SCORES | ZSET_WITH_VALUES | ZSET_WITH_LIMIT | ZSET_REVERSE)) {
        out << " 0x" << std::hex << q.flags << std::dec;
    }
    if (q.pass_optional && (q.flags & ZSET_WITH_LIMIT)) out << ", offset " << q.offset << ", count " << q.count;
    if (!q.pass_optional) out << ", no optional arguments";
    out << ")";
    return out.str();
}

}  // namespace kelvane_model
