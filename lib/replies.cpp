// replies.cpp -- function replies into statuses, numbers and buffers.
#include "replies.h"

#include <cstring>
#include <limits>
#include <vector>

#include "command.h"
#include "memory_manager.h"

namespace kelvane {
namespace {

bool is_known_status(long long s) {
    switch (s) {
        case KV_SUCCESS:
        case KV_WRONG_REPLY:
        case KV_ALREADY_EXISTS:
        case KV_NOTFOUND:
        case KV_INVALID_PARAMETER:
        case KV_NO_SET_KEY:
            return true;
        default:
            return false;
    }
}

// Bytes followed by the suffix, in one buffer of the memory manager, with a
// zero byte after them that the length does not count.
MmBuffer suffixed_copy(kv_mm* mm, std::string_view bytes, std::string_view suffix) {
    const std::size_t len = bytes.size() + suffix.size();
    MmBuffer out = mm_allocate(mm, len + 1);
    if (out) {
        if (!bytes.empty()) std::memcpy(out.get(), bytes.data(), bytes.size());
        if (!suffix.empty()) std::memcpy(out.get() + bytes.size(), suffix.data(), suffix.size());
        out.get()[len] = '\0';
    }
    return out;
}

// An array of n elements of T in one buffer of the memory manager.
template <class T>
T* new_array(kv_mm* mm, std::size_t n, MmBuffer& holder) {
    if (n > std::numeric_limits<std::size_t>::max() / sizeof(T)) return nullptr;
    holder = mm_allocate(mm, n * sizeof(T));
    return reinterpret_cast<T*>(holder.get());
}

const redisReply* array_field(const redisReply* reply, std::size_t i) {
    const redisReply* f = field(reply, i);
    return f != nullptr && f->type == REDIS_REPLY_ARRAY ? f : nullptr;
}

}  // namespace

int32_t function_status(const redisReply* reply) {
    if (reply == nullptr || reply->type != REDIS_REPLY_ARRAY || reply->elements == 0) {
        return KV_SERVER_ERROR;
    }
    const redisReply* s = reply->element[0];
    if (s->type != REDIS_REPLY_INTEGER || !is_known_status(s->integer)) return KV_SERVER_ERROR;
    return static_cast<int32_t>(s->integer);
}

const redisReply* field(const redisReply* reply, std::size_t i) {
    if (reply == nullptr || reply->type != REDIS_REPLY_ARRAY || i >= reply->elements) {
        return nullptr;
    }
    return reply->element[i];
}

bool read_integer(const redisReply* f, long long* out) {
    if (f == nullptr || f->type != REDIS_REPLY_INTEGER) return false;
    *out = f->integer;
    return true;
}

bool read_score(const redisReply* f, double* out) {
    if (f == nullptr || f->type != REDIS_REPLY_STRING) return false;
    return parse_score(f->str, f->len, out);
}

bool read_count(const redisReply* f, uint32_t* out) {
    long long n = 0;
    if (!read_integer(f, &n) || n < 0 || n > std::numeric_limits<uint32_t>::max()) return false;
    *out = static_cast<uint32_t>(n);
    return true;
}

int32_t hand_out_value(kv_mm* mm, const redisReply* f, char** value, std::size_t* value_len) {
    if (f == nullptr) return KV_SERVER_ERROR;
    if (f->type == REDIS_REPLY_NIL) return KV_SUCCESS;
    if (f->type != REDIS_REPLY_STRING) return KV_SERVER_ERROR;
    MmBuffer copy = mm_copy(mm, f->str, f->len);
    if (!copy) return KV_NO_MEMORY;
    *value = copy.release();
    *value_len = f->len;
    return KV_SUCCESS;
}

void clear_range(const RangeOut& out) {
    *out.members = nullptr;
    *out.count = 0;
    *out.members_len = nullptr;
    if (out.scores) *out.scores = nullptr;
    if (out.values) *out.values = nullptr;
    if (out.values_len) *out.values_len = nullptr;
}

int32_t hand_out_range(kv_mm* mm, const redisReply* reply, std::string_view suffix,
                       const RangeOut& out) {
    // ZRANGE's own reply: member, score pairs when scores were asked for.
    const redisReply* items = array_field(reply, 1);
    const redisReply* values = array_field(reply, 2);
    if (items == nullptr || values == nullptr) return KV_SERVER_ERROR;
    const std::size_t step = out.scores ? 2 : 1;
    const std::size_t n = items->elements / step;
    if (items->elements % step != 0 || (out.values && values->elements != n)) {
        return KV_SERVER_ERROR;
    }
    if (n == 0) return KV_SUCCESS;  // an empty result leaves every array null

    // Build everything first; only a complete result reaches the caller.
    std::vector<MmBuffer> member_items(n);
    std::vector<MmBuffer> value_items(out.values ? n : 0);
    MmBuffer member_array, member_lens, score_array, value_array, value_lens;
    void** m = new_array<void*>(mm, n, member_array);
    std::size_t* ml = new_array<std::size_t>(mm, n, member_lens);
    if (!m || !ml) return KV_NO_MEMORY;
    for (std::size_t k = 0; k < n; ++k) {
        const redisReply* item = items->element[k * step];
        if (item->type != REDIS_REPLY_STRING) return KV_SERVER_ERROR;
        member_items[k] = suffixed_copy(mm, std::string_view(item->str, item->len), suffix);
        if (!member_items[k]) return KV_NO_MEMORY;
        ml[k] = item->len + suffix.size();
    }
    double* s = nullptr;
    if (out.scores) {
        s = new_array<double>(mm, n, score_array);
        if (!s) return KV_NO_MEMORY;
        for (std::size_t k = 0; k < n; ++k) {
            if (!read_score(items->element[2 * k + 1], &s[k])) return KV_SERVER_ERROR;
        }
    }
    void** v = nullptr;
    std::size_t* vl = nullptr;
    if (out.values) {
        v = new_array<void*>(mm, n, value_array);
        vl = new_array<std::size_t>(mm, n, value_lens);
        if (!v || !vl) return KV_NO_MEMORY;
        for (std::size_t k = 0; k < n; ++k) {
            const redisReply* item = values->element[k];
            vl[k] = 0;
            if (item->type == REDIS_REPLY_NIL) continue;
            if (item->type != REDIS_REPLY_STRING) return KV_SERVER_ERROR;
            value_items[k] = suffixed_copy(mm, std::string_view(item->str, item->len), suffix);
            if (!value_items[k]) return KV_NO_MEMORY;
            vl[k] = item->len + suffix.size();
        }
    }

    for (std::size_t k = 0; k < n; ++k) m[k] = member_items[k].release();
    *out.members = reinterpret_cast<void**>(member_array.release());
    *out.members_len = reinterpret_cast<std::size_t*>(member_lens.release());
    *out.count = n;
    if (out.scores) *out.scores = reinterpret_cast<double*>(score_array.release());
    if (out.values) {
        for (std::size_t k = 0; k < n; ++k) v[k] = value_items[k].release();
        *out.values = reinterpret_cast<void**>(value_array.release());
        *out.values_len = reinterpret_cast<std::size_t*>(value_lens.release());
    }
    return KV_SUCCESS;
}

}  // namespace kelvane
