// api_reads.cpp -- the sorted-set reads: kv_zscore, kv_zrank, kv_zcard,
// kv_zcount and the four range reads, each on native commands
// (native_reads.h) or as a call of its server function, as the client's
// read path says.
//
// The variadic reads decide on their flags before they read any optional
// argument: a call with a combination they refuse passes none.
#include <cstdarg>
#include <string_view>

#include "api_common.h"
#include "native_reads.h"
#include "range_reply.h"

using kelvane::guarded;
using kelvane::PointReply;
using kelvane::Selection;

namespace {

constexpr int32_t kAllFlags = ZSET_WITH_SCORES | ZSET_WITH_VALUES | ZSET_WITH_LIMIT | ZSET_REVERSE;

int32_t count_members(kv_client* client, const char* key, size_t key_len, const double* bounds,
                      uint32_t* count) {
    if (!kelvane::key_ok(client, key, key_len) || count == nullptr) return KV_INVALID_PARAMETER;
    if (bounds && (!kelvane::score_ok(bounds[0]) || !kelvane::score_ok(bounds[1]))) {
        return KV_INVALID_PARAMETER;
    }
    if (client->native_reads()) return kelvane::native::count(client, key, key_len, bounds, count);
    kelvane::Request& request = kelvane::function_call(client, "zcount", key, key_len);
    if (bounds) request.score(bounds[0]).score(bounds[1]);
    PointReply reply(kelvane::kStatusCount);
    const int32_t status = kelvane::call_function(client, key, key_len, reply);
    if (status != KV_SUCCESS) return status;
    return reply.count(1, count) ? KV_SUCCESS : KV_SERVER_ERROR;
}

// The common body of the four range reads, after the optional arguments
// have been taken from the list.
int32_t read_range(kv_client* client, const char* key, size_t key_len, const Selection& sel,
                   int32_t flags, std::string_view suffix, const kelvane::RangeOut& out) {
    if (!kelvane::key_ok(client, key, key_len)) return KV_INVALID_PARAMETER;
    if (sel.by_score && (!kelvane::score_ok(sel.min) || !kelvane::score_ok(sel.max))) {
        return KV_INVALID_PARAMETER;
    }
    if (sel.limited && sel.offset < 0) return KV_INVALID_PARAMETER;
    const bool reverse = (flags & ZSET_REVERSE) != 0;
    if (!client->uses_function_for(sel, out.values != nullptr)) {
        return kelvane::native::range(client, key, key_len, sel, reverse, suffix, out);
    }
    kelvane::Request& request = kelvane::function_call(client, "zrange", key, key_len);
    request.flag(sel.by_score);
    if (sel.by_score) {
        request.score(sel.min).score(sel.max);
    } else {
        request.integer(sel.start).integer(sel.stop);
    }
    request.flag(reverse)
        .flag(out.scores != nullptr)
        .flag(out.values != nullptr);
    if (sel.limited) {
        request.integer(sel.offset).integer(sel.count);
    } else {
        request.arg("").arg("");
    }
    kelvane::RangeReply reply(client->mm, suffix, out.scores != nullptr, out.values != nullptr);
    int32_t status = client->run_function(key, key_len, reply);
    if (client->functions_refused(status)) {
        return kelvane::native::range(client, key, key_len, sel, reverse, suffix, out);
    }
    if (status != KV_SUCCESS) return status;
    status = reply.status();
    if (status == KV_SUCCESS) reply.hand_out(out);
    return status;
}

// Takes the optional arguments of a range read from args, clears every
// out-parameter and reads the range.
int32_t range_from_args(kv_client* client, const char* key, size_t key_len, Selection sel,
                        void*** members, size_t* count, size_t** members_len,
                        std::string_view suffix, bool suffix_ok, int32_t flags, va_list args) {
    if (members != nullptr) *members = nullptr;
    if (count != nullptr) *count = 0;
    if (members_len != nullptr) *members_len = nullptr;
    // A rank range takes no limit; unknown bits are refused before any
    // optional argument is read.
    if ((flags & ~kAllFlags) != 0 || (!sel.by_score && (flags & ZSET_WITH_LIMIT) != 0)) {
        return KV_INVALID_PARAMETER;
    }
    kelvane::RangeOut out{members, count, members_len, nullptr, nullptr, nullptr};
    sel.limited = (flags & ZSET_WITH_LIMIT) != 0;
    if (sel.limited) {
        sel.offset = va_arg(args, int32_t);
        sel.count = va_arg(args, int32_t);
    }
    bool outs_ok = members != nullptr && count != nullptr && members_len != nullptr;
    if (flags & ZSET_WITH_SCORES) {
        out.scores = va_arg(args, double**);
        outs_ok = outs_ok && out.scores != nullptr;
        if (out.scores) *out.scores = nullptr;
    }
    if (flags & ZSET_WITH_VALUES) {
        out.values = va_arg(args, void***);
        out.values_len = va_arg(args, size_t**);
        outs_ok = outs_ok && out.values != nullptr && out.values_len != nullptr;
        if (out.values) *out.values = nullptr;
        if (out.values_len) *out.values_len = nullptr;
    }
    if (!outs_ok || !suffix_ok) return KV_INVALID_PARAMETER;
    if (!sel.limited) sel.count = -1;
    return guarded(client, [&] { return read_range(client, key, key_len, sel, flags, suffix, out); });
}

Selection by_rank(int32_t start, int32_t stop) {
    return Selection{false, start, stop, 0, 0, false, 0, -1};
}

Selection by_score(double min, double max) {
    return Selection{true, 0, 0, min, max, false, 0, -1};
}

}  // namespace

extern "C" int32_t kv_zscore(kv_client* client, const char* key, size_t key_len,
                             const char* member, size_t member_len, double* score, char** value,
                             size_t* value_len) {
    if (score != nullptr) *score = 0;
    if (value != nullptr) *value = nullptr;
    if (value_len != nullptr) *value_len = 0;
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            score == nullptr || value == nullptr || value_len == nullptr) {
            return KV_INVALID_PARAMETER;
        }
        if (client->native_reads()) {
            return kelvane::native::zscore(client, key, key_len, std::string_view(member, member_len),
                                           score, value, value_len);
        }
        kelvane::function_call(client, "zscore", key, key_len).arg(member, member_len);
        // The value goes straight into a buffer for the caller.
        PointReply reply(kelvane::kStatusScoreValue, client->mm, 2);
        const int32_t status = kelvane::call_function(client, key, key_len, reply);
        if (status != KV_SUCCESS) return status;
        double found = 0;
        if (!reply.score(1, &found)) return KV_SERVER_ERROR;
        *value_len = reply.handed_len();
        *value = reply.take_handed().release();
        *score = found;
        return KV_SUCCESS;
    });
}

extern "C" int32_t kv_zrank(kv_client* client, const char* key, size_t key_len,
                            const char* member, size_t member_len, uint32_t* rank,
                            int32_t flags, ...) {
    if (rank != nullptr) *rank = 0;
    // Only ZSET_REVERSE and ZSET_WITH_VALUES mean something to a rank.
    if ((flags & ~(ZSET_REVERSE | ZSET_WITH_VALUES)) != 0) return KV_INVALID_PARAMETER;
    char** value = nullptr;
    size_t* value_len = nullptr;
    if (flags & ZSET_WITH_VALUES) {
        va_list args;
        va_start(args, flags);
        value = va_arg(args, char**);
        value_len = va_arg(args, size_t*);
        va_end(args);
        if (value != nullptr) *value = nullptr;
        if (value_len != nullptr) *value_len = 0;
        if (value == nullptr || value_len == nullptr) return KV_INVALID_PARAMETER;
    }
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            rank == nullptr) {
            return KV_INVALID_PARAMETER;
        }
        if (client->native_reads()) {
            return kelvane::native::zrank(client, key, key_len, std::string_view(member, member_len),
                                          (flags & ZSET_REVERSE) != 0, rank, value, value_len);
        }
        kelvane::function_call(client, "zrank", key, key_len)
            .arg(member, member_len)
            .flag((flags & ZSET_REVERSE) != 0)
            .flag(value != nullptr);
        PointReply reply(kelvane::kStatusRankValue, client->mm, value != nullptr ? 2 : -1);
        const int32_t status = kelvane::call_function(client, key, key_len, reply);
        if (status != KV_SUCCESS) return status;
        uint32_t found = 0;
        if (!reply.count(1, &found)) return KV_SERVER_ERROR;
        if (value != nullptr) {
            *value_len = reply.handed_len();
            *value = reply.take_handed().release();
        }
        *rank = found;
        return KV_SUCCESS;
    });
}

extern "C" int32_t kv_zcard(kv_client* client, const char* key, size_t key_len, uint32_t* count) {
    if (count != nullptr) *count = 0;
    return guarded(client, [&] { return count_members(client, key, key_len, nullptr, count); });
}

extern "C" int32_t kv_zcount(kv_client* client, const char* key, size_t key_len, double min,
                             double max, uint32_t* count) {
    if (count != nullptr) *count = 0;
    const double bounds[2] = {min, max};
    return guarded(client, [&] { return count_members(client, key, key_len, bounds, count); });
}

extern "C" int32_t kv_zrange(kv_client* client, const char* key, size_t key_len, int32_t start,
                             int32_t stop, void*** members, size_t* count, size_t** members_len,
                             int32_t flags, ...) {
    va_list args;
    va_start(args, flags);
    int32_t status = range_from_args(client, key, key_len, by_rank(start, stop), members, count,
                                     members_len, {}, true, flags, args);
    va_end(args);
    return status;
}

extern "C" int32_t kv_zrangebyscore(kv_client* client, const char* key, size_t key_len,
                                    double min, double max, void*** members, size_t* count,
                                    size_t** members_len, int32_t flags, ...) {
    va_list args;
    va_start(args, flags);
    int32_t status = range_from_args(client, key, key_len, by_score(min, max), members, count,
                                     members_len, {}, true, flags, args);
    va_end(args);
    return status;
}

extern "C" int32_t kv_zrange_whole(kv_client* client, const char* key, size_t key_len,
                                   int32_t start, int32_t stop, void*** members, size_t* count,
                                   size_t** members_len, const char* suffix, size_t suffix_len,
                                   int32_t flags, ...) {
    va_list args;
    va_start(args, flags);
    const bool suffix_ok = kelvane::bytes_ok(suffix, suffix_len);
    int32_t status = range_from_args(
        client, key, key_len, by_rank(start, stop), members, count, members_len,
        suffix_ok ? std::string_view(suffix, suffix_len) : std::string_view(), suffix_ok, flags,
        args);
    va_end(args);
    return status;
}

extern "C" int32_t kv_zrangebyscore_whole(kv_client* client, const char* key, size_t key_len,
                                          double min, double max, void*** members, size_t* count,
                                          size_t** members_len, const char* suffix,
                                          size_t suffix_len, int32_t flags, ...) {
    va_list args;
    va_start(args, flags);
    const bool suffix_ok = kelvane::bytes_ok(suffix, suffix_len);
    int32_t status = range_from_args(
        client, key, key_len, by_score(min, max), members, count, members_len,
        suffix_ok ? std::string_view(suffix, suffix_len) : std::string_view(), suffix_ok, flags,
        args);
    va_end(args);
    return status;
}
