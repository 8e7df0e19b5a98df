// fault_injector.cpp -- a test-only LD_PRELOAD module between zset and libkelvane.so.1, never installed or
// linked into the product. It forwards every call to the real library (dlsym(RTLD_NEXT)) and, when KELVANE_FAULT
// names a fault, changes one behaviour the way a real library bug would (docs/faults.md lists them). Whatever the
// fault, kv_mm_destroy reports buffers never released, so every run also proves that zset released everything;
// buffers made up here come from the client's memory manager, so zset releases them like the library's own.
#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "kelvane.h"

namespace {

bool is(const char* name) {
    static const char* const fault = std::getenv("KELVANE_FAULT");
    return fault != nullptr && std::strcmp(fault, name) == 0;
}

void* next_symbol(const char* name) {
    void* p = dlsym(RTLD_NEXT, name);
    if (p == nullptr) std::fprintf(stderr, "fault_injector: %s not found\n", name), std::abort();
    return p;
}
// The library's own function of the same name.
#define REAL(fn) (reinterpret_cast<decltype(&fn)>(next_symbol(#fn)))

// Before each call into the library. KELVANE_FAULT=slow adds 5 ms to each, so that tests can act in the middle of a
// run; `hang` and `crash` stop the run at the call numbered KELVANE_FAULT_CALL (from 1), as a library that blocks
// for good or crashes would: the call never returns, or the process dies of SIGSEGV.
void before_call() {
    static const long stop_at = std::getenv("KELVANE_FAULT_CALL") ? std::atol(std::getenv("KELVANE_FAULT_CALL")) : 0;
    static long calls = 0;
    if (is("slow")) usleep(5000);
    if (++calls != stop_at) return;
    if (is("crash")) raise(SIGSEGV);
    while (is("hang")) pause();
}
// A call into the library under the current fault.
#define CALL(fn, ...) (before_call(), REAL(fn)(__VA_ARGS__))

kv_mm* g_mm = nullptr;            // the memory manager of the client zset created
void* volatile g_kept = nullptr;  // leak_one: a buffer held here, never released

char* copy(const void* bytes, size_t n) {
    char* p = static_cast<char*>(g_mm->allocate(g_mm, n + 1));
    std::memcpy(p, bytes, n);
    p[n] = '\0';
    return p;
}

// A status that `name` turns into another one.
int32_t turn(const char* name, int32_t status, int32_t from, int32_t to) {
    return is(name) && status == from ? to : status;
}

// The time-to-live the library gets: the commit marker dropped, or added so that a plain one applies too.
int32_t ttl_in(int32_t ttl) {
    if (is("commit_ttl_ignored")) return ttl & ~KV_TTL_COMMIT_BIT;
    if (is("plain_ttl_applied") && ttl > 0) return ttl | KV_TTL_COMMIT_BIT;
    return ttl;
}

double one_ulp_up(double d) { return std::nextafter(d, INFINITY); }

// ---- Range results --------------------------------------------------------

// The result variables and optional arguments of one range call.
struct Range {
    void*** members;
    size_t* count;
    size_t** members_len;
    int32_t offset = 0, limit = 0;
    double** scores = nullptr;
    void*** values = nullptr;
    size_t** values_len = nullptr;
};

Range decode(va_list ap, int32_t flags, void*** members, size_t* count, size_t** members_len) {
    Range r{members, count, members_len};
    if (flags & ZSET_WITH_LIMIT) r.offset = va_arg(ap, int32_t), r.limit = va_arg(ap, int32_t);
    if (flags & ZSET_WITH_SCORES) r.scores = va_arg(ap, double**);
    if (flags & ZSET_WITH_VALUES) r.values = va_arg(ap, void***), r.values_len = va_arg(ap, size_t**);
    return r;
}
// Calls f with the fixed arguments, the flags and exactly the optional arguments the flags ask for.
template <class F, class... Fixed>
int32_t forward(F f, const Range& r, int32_t flags, Fixed... fixed) {
    auto v = [&](auto... a) { return flags & ZSET_WITH_VALUES ? f(a..., r.values, r.values_len) : f(a...); };
    auto s = [&](auto... a) { return flags & ZSET_WITH_SCORES ? v(a..., r.scores) : v(a...); };
    return flags & ZSET_WITH_LIMIT ? s(fixed..., flags, r.offset, r.limit) : s(fixed..., flags);
}

template <class T>
void grow(T** array, size_t n) {  // n entries become n + 1, the last repeated
    if (*array == nullptr) return;
    T* bigger = static_cast<T*>(g_mm->allocate(g_mm, (n + 1) * sizeof(T)));
    std::memcpy(bigger, *array, n * sizeof(T));
    bigger[n] = bigger[n - 1];
    g_mm->release(*array);
    *array = bigger;
}

// The faults of a successful, non-empty range result.
void alter(const Range& r, double* scores) {
    const size_t n = *r.count;
    void** mem = *r.members;
    size_t* mem_len = *r.members_len;
    void** val = r.values ? *r.values : nullptr;
    size_t* val_len = r.values_len ? *r.values_len : nullptr;
    if (n == 0 || mem == nullptr) return;
    for (size_t k = 0; k < n; ++k) {
        if (is("range_tie_order") && k + 1 < n && scores[k] == scores[k + 1]) {
            std::swap(mem[k], mem[k + 1]);
            std::swap(mem_len[k], mem_len[k + 1]);
            if (val) std::swap(val[k], val[k + 1]), std::swap(val_len[k], val_len[k + 1]);
            ++k;
        }
        if (is("range_score_ulp") && r.scores) scores[k] = one_ulp_up(scores[k]);
        if (is("range_spurious_value") && val && val[k] == nullptr) val[k] = copy("x", 1), val_len[k] = 1;
    }
    if (is("range_missing_item")) {
        g_mm->release(mem[n - 1]);
        if (val) g_mm->release(val[n - 1]);
        *r.count = n - 1;
    }
    if (is("range_extra_item")) {
        grow(r.members, n);
        (*r.members)[n] = copy((*r.members)[n - 1], (*r.members_len)[n - 1]);
        grow(r.members_len, n);
        if (r.scores) grow(r.scores, n);
        if (val) {
            grow(r.values, n);
            grow(r.values_len, n);
            void* last = (*r.values)[n];
            if (last) (*r.values)[n] = copy(last, (*r.values_len)[n]);
        }
        *r.count = n + 1;
    }
}

// One range call under the current fault; call(flags, range) makes it.
template <class Call>
int32_t range(Range r, int32_t flags, Call call) {
    if (is("range_reverse_ignored")) flags &= ~ZSET_REVERSE;
    if (is("range_limit_ignored")) flags &= ~ZSET_WITH_LIMIT;
    // Reordering ties needs the scores even where the caller did not ask.
    double* own_scores = nullptr;
    const bool borrow = is("range_tie_order") && !(flags & ZSET_WITH_SCORES);
    const Range asked = r;
    if (borrow) r.scores = &own_scores, flags |= ZSET_WITH_SCORES;
    int32_t status = call(flags, r);
    if (status == KV_SUCCESS) alter(asked, r.scores ? *r.scores : nullptr);
    if (borrow) g_mm->release(own_scores);
    return turn("range_absent_key_success", status, KV_NOTFOUND, KV_SUCCESS);
}

// The body of the range read fn: its optional arguments decoded, then the call made under the current fault.
#define RANGE_READ(fn, ...)                                                       \
    va_list ap;                                                                   \
    va_start(ap, flags);                                                          \
    const Range r = decode(ap, flags, members, count, members_len);              \
    va_end(ap);                                                                   \
    return range(r, flags, [&](int32_t f, const Range& x) {                       \
        return forward([&](auto... a) { return CALL(fn, a...); }, x, f, __VA_ARGS__); \
    })

}  // namespace

// ---- Set-up and keys ------------------------------------------------------

extern "C" kv_client* kv_client_create(int32_t connect_timeout_s, int32_t command_timeout_s, kv_mm* mm,
                                       int32_t connect_attempts) {
    g_mm = mm;
    if (is("leak_one")) g_kept = copy("kept", 4);  // proves the release check below
    return CALL(kv_client_create, connect_timeout_s, command_timeout_s, mm, connect_attempts);
}

extern "C" void kv_mm_destroy(kv_mm* mm) {
    const size_t live = mm != nullptr ? mm->live_count(mm) : 0;
    if (live != 0) std::fprintf(stderr, "fault_injector: %zu buffers never released\n", live);
    REAL(kv_mm_destroy)(mm);
}

extern "C" int32_t kv_server_add(kv_client* client, const char* host, uint32_t port, const kv_credentials* cred) {
    return turn("server_add_status", CALL(kv_server_add, client, host, port, cred), KV_SUCCESS, KV_CONNECT_FAILED);
}

extern "C" int32_t kv_del(kv_client* client, const char* key, size_t key_len) {
    uint32_t n;
    if (is("del_keeps_plain_sets") && REAL(kv_zcard)(client, key, key_len, &n) == KV_WRONG_REPLY) return KV_SUCCESS;
    return CALL(kv_del, client, key, key_len);
}

extern "C" int32_t kv_get_ttl(kv_client* client, const char* key, size_t key_len, int32_t* ttl) {
    int32_t status = CALL(kv_get_ttl, client, key, key_len, ttl);
    if (is("get_ttl_off_by_one") && status == KV_SUCCESS && *ttl > 0) --*ttl;
    return status;
}

extern "C" int32_t kv_sadd(kv_client* client, const char* key, size_t key_len, const char* member,
                           size_t member_len, int32_t ttl) {
    const int32_t status = CALL(kv_sadd, client, key, key_len, member, member_len, ttl);
    return turn("sadd_status", status, KV_SUCCESS, KV_ALREADY_EXISTS);
}

// ---- Writes ---------------------------------------------------------------

extern "C" int32_t kv_zadd(kv_client* client, const char* key, size_t key_len, double score, const char* member,
                           size_t member_len, int32_t ttl) {
    return turn("zadd_dup_success", CALL(kv_zadd, client, key, key_len, score, member, member_len, ttl_in(ttl)),
                KV_ALREADY_EXISTS, KV_SUCCESS);
}

extern "C" int32_t kv_zaddval(kv_client* client, const char* key, size_t key_len, double score, const char* member,
                              size_t member_len, const char* value, size_t value_len, int32_t ttl) {
    if (is("zaddval_value_short") && value_len > 0) --value_len;
    return CALL(kv_zaddval, client, key, key_len, score, member, member_len, value, value_len, ttl_in(ttl));
}

extern "C" int32_t kv_zmadd(kv_client* client, const char* key, size_t key_len, const double* scores,
                            const char* const* members, uint32_t count, const size_t* members_len, int32_t ttl) {
    if (is("zmadd_drops_last") && count > 1) --count;
    return CALL(kv_zmadd, client, key, key_len, scores, members, count, members_len, ttl_in(ttl));
}

extern "C" int32_t kv_zmaddval(kv_client* client, const char* key, size_t key_len, const double* scores,
                               const char* const* members, uint32_t count, const size_t* members_len,
                               const char* const* values, const size_t* values_len, int32_t ttl) {
    const int32_t status =
        CALL(kv_zmaddval, client, key, key_len, scores, members, count, members_len, values, values_len, ttl_in(ttl));
    return turn("zmaddval_dup_success", status, KV_ALREADY_EXISTS, KV_SUCCESS);
}

extern "C" int32_t kv_zaddvalmax(kv_client* client, const char* key, size_t key_len, const char* member,
                                 size_t member_len, const char* value, size_t value_len, double increment,
                                 int32_t ttl) {
    if (is("zaddvalmax_ignores_max")) {  // the increment alone becomes the score
        return REAL(kv_zaddval)(client, key, key_len, increment, member, member_len, value, value_len, ttl_in(ttl));
    }
    return CALL(kv_zaddvalmax, client, key, key_len, member, member_len, value, value_len, increment, ttl_in(ttl));
}

extern "C" int32_t kv_zaddmaxinc(kv_client* client, const char* key, size_t key_len, int32_t increment,
                                 int32_t ttl) {
    const int32_t status = CALL(kv_zaddmaxinc, client, key, key_len, increment, ttl_in(ttl));
    return turn("zaddmaxinc_dup_success", status, KV_ALREADY_EXISTS, KV_SUCCESS);
}

extern "C" int32_t kv_zadddis(kv_client* client, const char* key, size_t key_len, double score, const char* member,
                              size_t member_len, double drift, char** kept, int32_t ttl) {
    int32_t status = CALL(kv_zadddis, client, key, key_len, score, member, member_len, drift, kept, ttl_in(ttl));
    if (*kept != nullptr && is("zadddis_wrong_name")) g_mm->release(*kept), *kept = copy(member, member_len);
    if (*kept == nullptr && is("zadddis_spurious_name")) *kept = copy(member, member_len);
    return status;
}

extern "C" int32_t kv_zincrby(kv_client* client, const char* key, size_t key_len, const char* member,
                              size_t member_len, double increment, double* new_score, int32_t ttl) {
    int32_t status = CALL(kv_zincrby, client, key, key_len, member, member_len, increment, new_score, ttl_in(ttl));
    if (is("zincrby_score_ulp") && status == KV_SUCCESS) *new_score = one_ulp_up(*new_score);
    return turn("zincrby_wrong_kind_success", status, KV_WRONG_REPLY, KV_SUCCESS);
}

// ---- Reads ----------------------------------------------------------------

extern "C" int32_t kv_zscore(kv_client* client, const char* key, size_t key_len, const char* member,
                             size_t member_len, double* score, char** value, size_t* value_len) {
    const double before = *score;
    int32_t status = CALL(kv_zscore, client, key, key_len, member, member_len, score, value, value_len);
    if (status == KV_SUCCESS && is("zscore_score_ulp")) *score = one_ulp_up(*score);
    if (status != KV_SUCCESS && is("zscore_score_unwritten")) *score = before;
    return turn("zscore_noset_as_notfound", status, KV_NO_SET_KEY, KV_NOTFOUND);
}

extern "C" int32_t kv_zrank(kv_client* client, const char* key, size_t key_len, const char* member,
                            size_t member_len, uint32_t* rank, int32_t flags, ...) {
    va_list ap;
    va_start(ap, flags);
    char** value = flags & ZSET_WITH_VALUES ? va_arg(ap, char**) : nullptr;
    size_t* value_len = value ? va_arg(ap, size_t*) : nullptr;
    va_end(ap);
    if (is("zrank_reverse_ignored")) flags &= ~ZSET_REVERSE;
    if (is("zrank_limit_accepted")) flags &= ~ZSET_WITH_LIMIT;
    const uint32_t before = *rank;
    // The value arguments go along even when unused: the library reads only what its flags ask for.
    const int32_t status = CALL(kv_zrank, client, key, key_len, member, member_len, rank, flags, value, value_len);
    if (status != KV_SUCCESS && is("zrank_rank_unwritten")) *rank = before;
    return turn("zrank_noset_as_notfound", status, KV_NO_SET_KEY, KV_NOTFOUND);
}

extern "C" int32_t kv_zcard(kv_client* client, const char* key, size_t key_len, uint32_t* count) {
    const uint32_t before = *count;
    int32_t status = CALL(kv_zcard, client, key, key_len, count);
    if (is("zcard_count_unwritten") && status != KV_SUCCESS) *count = before;
    return status;
}

extern "C" int32_t kv_zcount(kv_client* client, const char* key, size_t key_len, double min, double max,
                             uint32_t* count) {
    if (is("zcount_max_exclusive")) max = std::nextafter(max, -INFINITY);
    return CALL(kv_zcount, client, key, key_len, min, max, count);
}

extern "C" int32_t kv_zrange(kv_client* client, const char* key, size_t key_len, int32_t start, int32_t stop,
                             void*** members, size_t* count, size_t** members_len, int32_t flags, ...) {
    RANGE_READ(kv_zrange, client, key, key_len, start, stop, members, count, members_len);
}

extern "C" int32_t kv_zrangebyscore(kv_client* client, const char* key, size_t key_len, double min, double max,
                                    void*** members, size_t* count, size_t** members_len, int32_t flags, ...) {
    RANGE_READ(kv_zrangebyscore, client, key, key_len, min, max, members, count, members_len);
}

// range_suffix_dropped: the _whole reads get an empty suffix.
extern "C" int32_t kv_zrange_whole(kv_client* client, const char* key, size_t key_len, int32_t start, int32_t stop,
                                   void*** members, size_t* count, size_t** members_len, const char* suffix,
                                   size_t suffix_len, int32_t flags, ...) {
    if (is("range_suffix_dropped")) suffix_len = 0;
    RANGE_READ(kv_zrange_whole, client, key, key_len, start, stop, members, count, members_len, suffix, suffix_len);
}

extern "C" int32_t kv_zrangebyscore_whole(kv_client* client, const char* key, size_t key_len, double min,
                                          double max, void*** members, size_t* count, size_t** members_len,
                                          const char* suffix, size_t suffix_len, int32_t flags, ...) {
    if (is("range_suffix_dropped")) suffix_len = 0;
    RANGE_READ(kv_zrangebyscore_whole, client, key, key_len, min, max, members, count, members_len, suffix,
               suffix_len);
}

extern "C" char* voidtostring(const void* item, size_t len, kv_mm* mm) {
    return is("voidtostring_null") ? nullptr : CALL(voidtostring, item, len, mm);
}

// ---- Removals -------------------------------------------------------------

extern "C" int32_t kv_zrem(kv_client* client, const char* key, size_t key_len, const char* member,
                           size_t member_len) {
    const int32_t status = CALL(kv_zrem, client, key, key_len, member, member_len);
    return turn("zrem_notfound_success", status, KV_NOTFOUND, KV_SUCCESS);
}

extern "C" int32_t kv_zmrem(kv_client* client, const char* key, size_t key_len, const char* const* members,
                            uint32_t count, const size_t* members_len, uint32_t* removed) {
    return turn("zmrem_notfound_success", CALL(kv_zmrem, client, key, key_len, members, count, members_len, removed),
                KV_NOTFOUND, KV_SUCCESS);
}

extern "C" int32_t kv_zremrangebyscore(kv_client* client, const char* key, size_t key_len, double min, double max,
                                       uint32_t* removed) {
    if (is("zremrangebyscore_max_exclusive")) max = std::nextafter(max, -INFINITY);
    return CALL(kv_zremrangebyscore, client, key, key_len, min, max, removed);
}

extern "C" int32_t kv_zremrangebyrank(kv_client* client, const char* key, size_t key_len, int32_t start,
                                      int32_t stop, uint32_t* removed) {
    if (is("zremrangebyrank_stop_exclusive") && stop != 0) --stop;
    return CALL(kv_zremrangebyrank, client, key, key_len, start, stop, removed);
}
