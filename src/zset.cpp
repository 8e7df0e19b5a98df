/* zset.cpp -- conformance program for the sorted-set operations of the
 * kelvane client library.
 *
 * The program registers one store server (HOST:PORT), runs eighteen suites,
 * one per sorted-set operation and 68 cases in all, and compares every
 * status and every returned score, member, value, rank, count and
 * time-to-live with what the case expects. For each case it prints a header,
 * one line per failed check (the check's source text, file and line) and a
 * verdict; a summary line with the passed and failed counts ends the run.
 * Everything goes to standard output and the exit status is always 0: the
 * outcome of a run is read from its output. Arguments are ignored.
 *
 * The library under test may be faulty, and the program has to survive it:
 * it never reads through a pointer the library left null or that the
 * program has already released, never walks past its own expected-data
 * arrays, and releases every buffer handed back to it. A check that cannot
 * be evaluated safely counts as failed and prints its own text.
 */

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "kelvane.h"

/* ---- Run-wide state ---------------------------------------------------- */

kv_mm *mm;
kv_client *client;

int32_t case_ok = 1;
int32_t passed_count = 0;
int32_t failed_count = 0;

static const char *const HOST = "127.0.0.1";
static const uint32_t PORT = 12345;

/* ---- Released buffers -------------------------------------------------- */

/* Stands for a buffer the library handed back and the program has already
 * released. It is not null, so a later "== NULL" check passes only when the
 * library itself writes NULL over it, but it is never read and never
 * released again. Variables the program must not release before a call has
 * written them start out holding it, too. */
static std::max_align_t released_marker;
#define RELEASED (static_cast<void *>(&released_marker))

/* True for a pointer that may be read: not null and not RELEASED. */
static bool usable(const void *p)
{
    return p != NULL && p != RELEASED;
}

/* True when p may be read for need bytes, by the length the library
 * reported for it. */
static bool value_readable(const char *p, size_t len, size_t need)
{
    return usable(p) && len >= need;
}

/* Releases a value buffer the library handed back, if there is one, and
 * leaves RELEASED in its place instead of a dangling pointer. */
static void release_value(char **p)
{
    if (usable(*p)) {
        mm->release(*p);
        *p = static_cast<char *>(RELEASED);
    }
}

/* ---- Case protocol ----------------------------------------------------- */

/* Prints the failure line of a check and marks the current case failed. */
static void report_failure(const char *cond_text, const char *file, int line)
{
    case_ok = 0;
    printf("Condition=[%s] HAS FAILED at %s line %d\n", cond_text, file, line);
}

#define CASE_BEGIN(title)              \
    do {                               \
        case_ok = 1;                   \
        printf("== %s ==\n", (title)); \
    } while (0)

/* cond is evaluated exactly once; when it is false the failure line prints
 * its source text. */
#define CHECK(cond)                                    \
    do {                                               \
        if (!(cond))                                   \
            report_failure(#cond, __FILE__, __LINE__); \
    } while (0)

/* A check that reads through ptr, a pointer the library hands back: when
 * ptr is null or already released, cond is not evaluated and the check
 * fails with cond's text. */
#define CHECK_THROUGH(ptr, cond)                       \
    do {                                               \
        if (!usable(ptr) || !(cond))                   \
            report_failure(#cond, __FILE__, __LINE__); \
    } while (0)

/* A check that is safe to evaluate only while guard holds; otherwise it
 * fails with cond's text without evaluating it. */
#define CHECK_IF(guard, cond)                          \
    do {                                               \
        if (!(guard) || !(cond))                       \
            report_failure(#cond, __FILE__, __LINE__); \
    } while (0)

/* The verdict text carries its own newline and puts adds another, so every
 * verdict is followed by an empty line. */
#define CASE_END                       \
    do {                               \
        if (case_ok) {                 \
            passed_count++;            \
            puts("== PASSED ==\n");    \
        } else {                       \
            failed_count++;            \
            puts("== FAILED ==\n");    \
        }                              \
    } while (0)

/* Levelled console output; kept for debugging sessions, the run itself does
 * not log. Level 5 prints the message without a prefix. */
int console_log(int32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));

int console_log(int32_t level, const char *format, ...)
{
    va_list args;
    int written;

    switch (level) {
    case 0: fputs("ERROR: ", stdout); break;
    case 1: fputs("DEBUG: ", stdout); break;
    case 2: fputs("EVENT: ", stdout); break;
    case 3: fputs("NOTICE: ", stdout); break;
    case 4: fputs("WARNING: ", stdout); break;
    case 5: break;
    default: fputs("UNKNOWN: ", stdout); break;
    }
    va_start(args, format);
    written = vprintf(format, args);
    va_end(args);
    return written;
}

/* ---- Range results ----------------------------------------------------- */

/* NUL-terminated copy of item k of a range array, or NULL when the array,
 * the item or the length array is missing or the copy fails. */
static char *convert_item(void **items, const size_t *lens, size_t k)
{
    if (!usable(items) || !usable(lens) || items[k] == NULL)
        return NULL;
    return voidtostring(items[k], lens[k], mm);
}

/* Releases one range result: the member items and their array, the value
 * items (null entries included) and their array, then the length and score
 * arrays. Pass NULL for the variables the call was not given. Whatever is
 * released is left as RELEASED; the next call's clearing resets it. */
static void release_range_result(void ***q_mem, size_t q_len, size_t **q_ind_len,
                                 double **q_score, void ***q_val, size_t **q_indv_len)
{
    size_t k;

    if (usable(*q_mem)) {
        for (k = 0; k < q_len; k++)
            mm->release((*q_mem)[k]);
        mm->release(*q_mem);
        *q_mem = static_cast<void **>(RELEASED);
    }
    if (q_val != NULL && usable(*q_val)) {
        for (k = 0; k < q_len; k++)
            mm->release((*q_val)[k]);
        mm->release(*q_val);
        *q_val = static_cast<void **>(RELEASED);
    }
    if (usable(*q_ind_len)) {
        mm->release(*q_ind_len);
        *q_ind_len = static_cast<size_t *>(RELEASED);
    }
    if (q_score != NULL && usable(*q_score)) {
        mm->release(*q_score);
        *q_score = static_cast<double *>(RELEASED);
    }
    if (q_indv_len != NULL && usable(*q_indv_len)) {
        mm->release(*q_indv_len);
        *q_indv_len = static_cast<size_t *>(RELEASED);
    }
}

/* ---- Insertion suites -------------------------------------------------- */

static void suite_zadd(void)
{
    const char *key = "zset";
    const char *val = "foo";
    double score = 10.0;
    double q_score;
    char *memval;
    size_t memval_len;
    int32_t ttl = -1; /* never 7200 or 8000 unless kv_get_ttl wrote it */

    CASE_BEGIN("ZADD zset 10 foo - add a new value to zset");
    kv_del(client, "zset", 4);
    CHECK(kv_zadd(client, key, strlen(key), score, val, strlen(val), 0) == KV_SUCCESS);
    q_score = 0.0;
    memval = NULL;
    memval_len = 0;
    CHECK(kv_zscore(client, key, strlen(key), val, strlen(val), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == score);
    CHECK(memval == NULL);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADD zset 5 foo - add a duplicate value to zset");
    CHECK(kv_zadd(client, key, strlen(key), 5, val, strlen(val), 0) == KV_ALREADY_EXISTS);
    CHECK(kv_zscore(client, key, strlen(key), val, strlen(val), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 5);
    CHECK(memval == NULL);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADD - with TTL without commit");
    CHECK(kv_zadd(client, "zTTL", 4, 3, "bau", 3, 7200) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zTTL", 4, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zadd(client, "zTTL", 4, 2, "aaa", 3, 5000) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zTTL", 4, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CASE_END;

    CASE_BEGIN("ZADD - with TTL and commit");
    CHECK(kv_zadd(client, "zTTLcommit", 10, 8, "bau", 3, COMMIT_TTL(7200)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zTTLcommit", 10, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zadd(client, "zTTLcommit", 10, 5, "aaa", 3, COMMIT_TTL(8000)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zTTLcommit", 10, &ttl) == KV_SUCCESS);
    CHECK(ttl == 8000);
    CASE_END;
}

static void suite_zmadd(void)
{
    const char *key = "zset";
    double score[3] = {20.0, 30.0, 10.0};
    const char *memkeys[3] = {"key1", "key21", "key311"};
    size_t memkeys_len[3] = {4, 5, 6};
    double q_score = 0.0;
    char *q_memval = NULL;
    size_t q_memval_len = 0;
    int32_t ttl = -1; /* never 7200 or 8000 unless kv_get_ttl wrote it */
    int i;

    CASE_BEGIN("ZMADD - add multiple values to zset");
    kv_del(client, "zset", 4);
    CHECK(kv_zmadd(client, key, strlen(key), score, (const char*const*)memkeys, 3, memkeys_len, 0) == KV_SUCCESS);
    for (i = 0; i < 3; i++) {
        CHECK(kv_zscore(client, key, strlen(key), memkeys[i], memkeys_len[i], &q_score, &q_memval, &q_memval_len) == KV_SUCCESS);
        CHECK(q_score == score[i]);
        CHECK(q_memval == NULL);
        release_value(&q_memval);
    }
    CASE_END;

    CASE_BEGIN("ZMADD - add a duplicate values to zset");
    score[0] = 5.0;
    score[1] = 8.0;
    CHECK(kv_zmadd(client, key, strlen(key), score, (const char*const*)memkeys, 2, memkeys_len, 0) == KV_ALREADY_EXISTS);
    for (i = 0; i < 3; i++) {
        CHECK(kv_zscore(client, key, strlen(key), memkeys[i], memkeys_len[i], &q_score, &q_memval, &q_memval_len) == KV_SUCCESS);
        CHECK(q_score == score[i]);
        CHECK(q_memval == NULL);
        release_value(&q_memval);
    }
    CASE_END;

    CASE_BEGIN("ZMADD - with TTL without commit");
    CHECK(kv_zmadd(client, "zmTTL", 5, score, (const char*const*)memkeys, 1, memkeys_len, 7200) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmTTL", 5, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zmadd(client, "zmTTL", 5, score+1, (const char*const*)memkeys+1, 2, memkeys_len+1, 5000) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmTTL", 5, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CASE_END;

    CASE_BEGIN("ZMADD - with TTL and commit");
    CHECK(kv_zmadd(client, "zmTTLcommit", 11, score, (const char*const*)memkeys, 2, memkeys_len, COMMIT_TTL(7200)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmTTLcommit", 11, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zmadd(client, "zmTTLcommit", 11, score+2, (const char*const*)memkeys+2, 1, memkeys_len+2, COMMIT_TTL(8000)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmTTLcommit", 11, &ttl) == KV_SUCCESS);
    CHECK(ttl == 8000);
    CASE_END;
}

static void suite_zaddval(void)
{
    const char *key = "zset";
    const char *memkey = "foo";
    double q_score = 0.0;
    char *memval = NULL;
    size_t memval_len = 0;
    int32_t ttl = -1; /* never 7200 or 8000 unless kv_get_ttl wrote it */

    kv_del(client, "zset", 4);

    CASE_BEGIN("ZADDVAL - <member, value> sorted sets");
    CHECK(kv_zaddval(client, key, strlen(key), 10, memkey, strlen(memkey), "myval", strlen("myval"), 0) == KV_SUCCESS);
    CHECK(kv_zscore(client, key, strlen(key), memkey, strlen(memkey), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 10);
    CHECK_IF(value_readable(memval, memval_len, strlen("myval")), strncmp(memval, "myval", strlen("myval")) == 0);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADDVAL - add a duplicate value to zset");
    CHECK(kv_zaddval(client, key, strlen(key), 5, memkey, strlen(memkey), "mynewval", strlen("mynewval"), 0) == KV_ALREADY_EXISTS);
    CHECK(kv_zscore(client, key, strlen(key), memkey, strlen(memkey), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 5);
    CHECK_IF(value_readable(memval, memval_len, strlen("mynewval")), strncmp(memval, "mynewval", strlen("mynewval")) == 0);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADDVAL - with TTL without commit");
    CHECK(kv_zaddval(client, "zvTTL", 5, 3, "bau", 3, "myval", strlen("myval"), 7200) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zvTTL", 5, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zaddval(client, "zvTTL", 5, 2, "aaa", 3, "myval", strlen("myval"), 5000) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zvTTL", 5, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CASE_END;

    CASE_BEGIN("ZADDVAL - with TTL and commit");
    CHECK(kv_zaddval(client, "zvTTLcommit", 11, 8, "bau", 3, "myval", strlen("myval"), COMMIT_TTL(7200)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zvTTLcommit", 11, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zaddval(client, "zvTTLcommit", 11, 5, "aaa", 3, "myval", strlen("myval"), COMMIT_TTL(8000)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zvTTLcommit", 11, &ttl) == KV_SUCCESS);
    CHECK(ttl == 8000);
    CASE_END;
}

static void suite_zmaddval(void)
{
    const char *key = "zset";
    double score[3] = {20.0, 30.0, 10.0};
    const char *memkeys[3] = {"key1", "key21", "key311"};
    size_t memkeys_len[3] = {4, 5, 6};
    const char *memvals[3] = {"val1", "vv", "kks"};
    size_t memvals_len[3] = {4, 2, 3};
    double q_score = 0.0;
    char *q_memval = NULL;
    size_t q_memval_len = 0;
    int32_t ttl = -1; /* never 7200 or 8000 unless kv_get_ttl wrote it */
    int i;

    CASE_BEGIN("ZMADDVAL - add multiple keys and values to zset");
    kv_del(client, "zset", 4);
    CHECK(kv_zmaddval(client, key, strlen(key), score, (const char*const*)memkeys, 3, memkeys_len, (const char*const*)memvals, memvals_len, 0) == KV_SUCCESS);
    for (i = 0; i < 3; i++) {
        CHECK(kv_zscore(client, key, strlen(key), memkeys[i], memkeys_len[i], &q_score, &q_memval, &q_memval_len) == KV_SUCCESS);
        CHECK(q_score == score[i]);
        CHECK(q_memval_len == memvals_len[i]);
        CHECK_IF(value_readable(q_memval, q_memval_len, memvals_len[i]), strncmp(q_memval, memvals[i], memvals_len[i]) == 0);
        release_value(&q_memval);
    }
    CASE_END;

    CASE_BEGIN("ZMADDVAL - add a duplicate keys to zset");
    score[0] = 5.0;
    score[1] = 8.0;
    memvals[0] = "uu";
    memvals_len[0] = 2;
    memvals[1] = "xxx";
    memvals_len[1] = 3;
    CHECK(kv_zmaddval(client, key, strlen(key), score, (const char*const*)memkeys, 2, memkeys_len, (const char*const*)memvals, memvals_len, 0) == KV_ALREADY_EXISTS);
    for (i = 0; i < 3; i++) {
        CHECK(kv_zscore(client, key, strlen(key), memkeys[i], memkeys_len[i], &q_score, &q_memval, &q_memval_len) == KV_SUCCESS);
        CHECK(q_score == score[i]);
        CHECK(q_memval_len == memvals_len[i]);
        CHECK_IF(value_readable(q_memval, q_memval_len, memvals_len[i]), strncmp(q_memval, memvals[i], memvals_len[i]) == 0);
        release_value(&q_memval);
    }
    CASE_END;

    CASE_BEGIN("ZMADDVAL - with TTL without commit");
    CHECK(kv_zmaddval(client, "zmvTTL", 6, score, (const char*const*)memkeys, 1, memkeys_len, (const char*const*)memvals, memvals_len, 7200) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmvTTL", 6, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zmaddval(client, "zmvTTL", 6, score+1, (const char*const*)memkeys+1, 2, memkeys_len+1, (const char*const*)memvals+1, memvals_len+1, 5000) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmvTTL", 6, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CASE_END;

    CASE_BEGIN("ZMADDVAL - with TTL and commit");
    CHECK(kv_zmaddval(client, "zmvTTLcommit", 12, score, (const char*const*)memkeys, 2, memkeys_len, (const char*const*)memvals, memvals_len, COMMIT_TTL(7200)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmvTTLcommit", 12, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zmaddval(client, "zmvTTLcommit", 12, score+2, (const char*const*)memkeys+2, 1, memkeys_len+2, (const char*const*)memvals+2, memvals_len+2, COMMIT_TTL(8000)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmvTTLcommit", 12, &ttl) == KV_SUCCESS);
    CHECK(ttl == 8000);
    CASE_END;
}

static void suite_zaddvalmax(void)
{
    const char *key = "zset";
    const char *memkey[3] = {"foo", "bar", "max"};
    double q_score = 0.0;
    char *memval = NULL;
    size_t memval_len = 0;
    int32_t ttl = -1; /* never 7200 or 8000 unless kv_get_ttl wrote it */

    kv_del(client, "zset", 4);

    CASE_BEGIN("ZADDVALMAX - <member, value> sorted sets");
    CHECK(kv_zaddval(client, key, strlen(key), 10, memkey[0], strlen(memkey[0]), "myval", strlen("myval"), 0) == KV_SUCCESS);
    CHECK(kv_zaddval(client, key, strlen(key), 4, memkey[1], strlen(memkey[1]), "myval1", strlen("myval1"), 0) == KV_SUCCESS);
    CHECK(kv_zaddvalmax(client, key, strlen(key), memkey[2], strlen(memkey[2]), "myval2", strlen("myval2"), 2, 0) == KV_SUCCESS);
    CHECK(kv_zscore(client, key, strlen(key), memkey[2], strlen(memkey[2]), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 12);
    CHECK_IF(value_readable(memval, memval_len, strlen("myval2")), strncmp(memval, "myval2", strlen("myval2")) == 0);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADDVALMAX - add a duplicate value to zset");
    CHECK(kv_zaddvalmax(client, key, strlen(key), memkey[0], strlen(memkey[0]), "mynewval", strlen("mynewval"), 10, 0) == KV_ALREADY_EXISTS);
    CHECK(kv_zscore(client, key, strlen(key), memkey[0], strlen(memkey[0]), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 22);
    CHECK_IF(value_readable(memval, memval_len, strlen("mynewval")), strncmp(memval, "mynewval", strlen("mynewval")) == 0);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADDVALMAX - with TTL without commit");
    CHECK(kv_zaddvalmax(client, "zmaxTTL", 7, "bau", 3, "myval", strlen("myval"), 2, 7200) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmaxTTL", 7, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zaddvalmax(client, "zmaxTTL", 7, "aaa", 3, "myval", strlen("myval"), 3, 5000) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmaxTTL", 7, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CASE_END;

    CASE_BEGIN("ZADDVALMAX - with TTL and commit");
    CHECK(kv_zaddvalmax(client, "zmaxTTLcommit", 13, "bau", 3, "myval", strlen("myval"), 1, COMMIT_TTL(7200)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmaxTTLcommit", 13, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zaddvalmax(client, "zmaxTTLcommit", 13, "aaa", 3, "myval", strlen("myval"), 2, COMMIT_TTL(8000)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zmaxTTLcommit", 13, &ttl) == KV_SUCCESS);
    CHECK(ttl == 8000);
    CASE_END;
}

static void suite_zaddmaxinc(void)
{
    const char *key = "zset";
    double q_score = 0.0;
    char *memval = NULL;
    size_t memval_len = 0;
    int32_t ttl = -1; /* never 7200 or 8000 unless kv_get_ttl wrote it */

    kv_del(client, "zset", 4);

    /* The members made up by kv_zaddmaxinc carry no value; a value buffer
     * that arrives all the same is released after its NULL check. */
    CASE_BEGIN("ZADDMAXINC - integer sorted sets");
    CHECK(kv_zaddmaxinc(client, key, strlen(key), 4, 0) == KV_SUCCESS);
    CHECK(kv_zscore(client, key, strlen(key), "4", strlen("4"), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 4);
    CHECK(memval == NULL);
    release_value(&memval);
    CHECK(kv_zaddval(client, key, strlen(key), 10, "foo", strlen("foo"), "myval", strlen("myval"), 0) == KV_SUCCESS);
    CHECK(kv_zaddmaxinc(client, key, strlen(key), 2, 0) == KV_SUCCESS);
    CHECK(kv_zscore(client, key, strlen(key), "12", strlen("12"), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 12);
    CHECK(memval == NULL);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADDMAXINC - integer value is already present in zset");
    CHECK(kv_zaddval(client, key, strlen(key), 5, "15", strlen("15"), "myval", strlen("myval"), 0) == KV_SUCCESS);
    CHECK(kv_zaddmaxinc(client, key, strlen(key), 3, 0) == KV_ALREADY_EXISTS);
    CHECK(kv_zscore(client, key, strlen(key), "15", strlen("15"), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 15);
    CHECK(memval == NULL);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADDMAXINC - with TTL without commit");
    CHECK(kv_zaddmaxinc(client, "zincTTL", 7, 2, 7200) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zincTTL", 7, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zaddmaxinc(client, "zincTTL", 7, 3, 5000) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zincTTL", 7, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CASE_END;

    CASE_BEGIN("ZADDMAXINC - with TTL and commit");
    CHECK(kv_zaddmaxinc(client, "zincTTLcommit", 13, 1, COMMIT_TTL(7200)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zincTTLcommit", 13, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zaddmaxinc(client, "zincTTLcommit", 13, 2, COMMIT_TTL(8000)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zincTTLcommit", 13, &ttl) == KV_SUCCESS);
    CHECK(ttl == 8000);
    CASE_END;
}

static void suite_zadddis(void)
{
    const char *key = "zset";
    double q_score = 0.0;
    char *memval = NULL; /* name kept by kv_zadddis, or value from kv_zscore */
    size_t memval_len = 0;
    int32_t ttl = -1; /* never 7200 or 8000 unless kv_get_ttl wrote it */

    kv_del(client, "zset", 4);

    /* Where a check expects no buffer, whatever arrives is still released
     * once the checks on it are done. */
    CASE_BEGIN("ZADDDIS - check (score - max) > drift");
    CHECK(kv_zadddis(client, key, strlen(key), 4, "foo", strlen("foo"), 10, &memval, 0) == KV_SUCCESS);
    CHECK(memval == NULL);
    release_value(&memval);
    CHECK(kv_zscore(client, key, strlen(key), "foo", strlen("foo"), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 4);
    CHECK(memval == NULL);
    release_value(&memval);
    CHECK(kv_zadddis(client, key, strlen(key), 7, "bar", strlen("bar"), 2, &memval, 0) == KV_SUCCESS);
    CHECK(memval == NULL);
    release_value(&memval);
    CHECK(kv_zscore(client, key, strlen(key), "foo", strlen("foo"), &q_score, &memval, &memval_len) == KV_NO_SET_KEY);
    release_value(&memval);
    CHECK(kv_zscore(client, key, strlen(key), "bar", strlen("bar"), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 7);
    CHECK(memval == NULL);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADDDIS - check (score - max) < drift");
    CHECK(kv_zadddis(client, key, strlen(key), 5, "foo", strlen("foo"), 10, &memval, 0) == KV_SUCCESS);
    CHECK_THROUGH(memval, strcmp("bar", memval) == 0);
    release_value(&memval);
    memval = NULL;
    CHECK(kv_zscore(client, key, strlen(key), "bar", strlen("bar"), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 5);
    CHECK(memval == NULL);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADDDIS - check duplicate key");
    CHECK(kv_zadd(client, key, strlen(key), 1, "dup", strlen("dup"), 0) == KV_SUCCESS);
    CHECK(kv_zadddis(client, key, strlen(key), 10, "dup", strlen("dup"), 1, &memval, 0) == KV_ALREADY_EXISTS);
    CHECK(memval == NULL);
    release_value(&memval);
    CHECK(kv_zscore(client, key, strlen(key), "dup", strlen("dup"), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 10);
    CHECK(memval == NULL);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZADDDIS - with TTL without commit");
    CHECK(kv_zadddis(client, "zdddTTL", 7, 10, "bau", 3, 1, &memval, 7200) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zdddTTL", 7, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    release_value(&memval); /* a name the first add should not have handed back */
    CHECK(kv_zadddis(client, "zdddTTL", 7, 8, "aaa", 3, 10, &memval, 5000) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zdddTTL", 7, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    release_value(&memval);
    memval = NULL;
    CASE_END;

    CASE_BEGIN("ZADDDIS - with TTL and commit");
    CHECK(kv_zadddis(client, "zdddTTLcommit", 13, 4, "bau", 3, 10, &memval, COMMIT_TTL(7200)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zdddTTLcommit", 13, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    release_value(&memval); /* a name the first add should not have handed back */
    CHECK(kv_zadddis(client, "zdddTTLcommit", 13, 6, "aaa", 3, 2, &memval, COMMIT_TTL(8000)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zdddTTLcommit", 13, &ttl) == KV_SUCCESS);
    CHECK(ttl == 8000);
    release_value(&memval);
    memval = NULL;
    CASE_END;
}

/* ---- Query suites ------------------------------------------------------ */

static void suite_zscore(void)
{
    const char *key = "zset";
    const char *memkey = "foo";
    double q_score = 0.0;
    char *memval = NULL;
    size_t memval_len = 0;

    /* Set-up outside any case: a failure shows only as its failure line. */
    kv_del(client, "zset", 4);
    CHECK(kv_zaddval(client, key, strlen(key), 10, memkey, strlen(memkey), "bar", strlen("bar"), 0) == KV_SUCCESS);

    CASE_BEGIN("ZSCORE - zset and memkey found");
    CHECK(kv_zscore(client, key, strlen(key), memkey, strlen(memkey), &q_score, &memval, &memval_len) == KV_SUCCESS);
    CHECK(q_score == 10);
    CHECK_IF(value_readable(memval, memval_len, strlen("bar")), strncmp(memval, "bar", strlen("bar")) == 0);
    /* memval stays non-null (RELEASED): the next case passes only when
     * kv_zscore writes NULL itself. */
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZSCORE - no zset found");
    CHECK(kv_zscore(client, "noset", strlen("noset"), memkey, strlen(memkey), &q_score, &memval, &memval_len) == KV_NOTFOUND);
    CHECK(q_score == 0);
    CHECK(memval == NULL);
    release_value(&memval);
    CASE_END;

    CASE_BEGIN("ZSCORE - zset exists BUT memkey is not found");
    CHECK(kv_zscore(client, key, strlen(key), "nokey", strlen("nokey"), &q_score, &memval, &memval_len) == KV_NO_SET_KEY);
    CHECK(q_score == 0);
    CHECK(memval == NULL);
    release_value(&memval);
    CASE_END;
}

/* Walks a ZRANGE result in ascending order over the members the suite
 * wrote (memkey[i] with score i, and a value memval[i] at even i): per index
 * the member, then its score, then its value or its absence, each where the
 * call was given those variables (pass NULL for the ones it was not). A
 * result of more than five members fails on "q_len <= 5" and only its first
 * n_written entries are compared; a shorter one is walked as far as it
 * goes. */
static void walk_rank_result(void **q_mem, size_t q_len, size_t *q_ind_len, double **scores,
                             void ***values, size_t **value_lens, char memkey[][32],
                             char memval[][32], uint32_t n_written)
{
    double *q_score = scores != NULL ? *scores : NULL;
    void **q_val = values != NULL ? *values : NULL;
    size_t *q_indv_len = value_lens != NULL ? *value_lens : NULL;
    uint32_t i;
    char *temp;

    if (q_mem == NULL || q_len == 0)
        return;
    CHECK(q_len <= 5);
    for (i = 0; i < q_len && i < n_written; i++) {
        temp = convert_item(q_mem, q_ind_len, i);
        CHECK(temp != NULL);
        if (temp != NULL) {
            CHECK(strcmp(temp, memkey[i]) == 0);
        }
        mm->release(temp);
        if (scores != NULL) {
            CHECK_THROUGH(q_score, q_score[i] == i);
        }
        if (values == NULL)
            continue;
        if (i % 2 == 1) {
            CHECK_THROUGH(q_val, q_val[i] == NULL);
        } else {
            temp = convert_item(q_val, q_indv_len, i);
            CHECK(temp != NULL);
            if (temp != NULL) {
                CHECK(strcmp(temp, memval[i]) == 0);
            }
            mm->release(temp);
        }
    }
}

static void suite_zrange(void)
{
    const char *key = "zset";
    char memkey[32][32];
    char memval[32][32]; /* only the even entries are ever written */
    const uint32_t n_written = 5; /* entries case 1 writes; walks stop there */
    uint32_t i;
    size_t j;
    void **q_mem;
    size_t q_len;
    size_t *q_ind_len;
    double *q_score;
    void **q_val;
    size_t *q_indv_len;
    char *temp;

    CASE_BEGIN("ZADD zset i foo_i - add 5 new values to zset");
    kv_del(client, "zset", 4);
    for (i = 0; i < n_written; i++) {
        snprintf(memkey[i], sizeof(memkey[i]), "foo_%d", (int)i);
        if (i % 2 == 1) {
            CHECK(kv_zadd(client, key, strlen(key), i, memkey[i], strlen(memkey[i]), 0) == KV_SUCCESS);
        } else {
            snprintf(memval[i], sizeof(memval[i]), "val_%d", (int)i);
            CHECK(kv_zaddval(client, key, strlen(key), i, memkey[i], strlen(memkey[i]), memval[i], strlen(memval[i]), 0) == KV_SUCCESS);
        }
    }
    CASE_END;

    CASE_BEGIN("ZRANGE zset 0 -1");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    CHECK(kv_zrange(client, key, strlen(key), 0, -1, &q_mem, &q_len, &q_ind_len, 0) == KV_SUCCESS);
    walk_rank_result(q_mem, q_len, q_ind_len, NULL, NULL, NULL, memkey, memval, n_written);
    release_range_result(&q_mem, q_len, &q_ind_len, NULL, NULL, NULL);
    CASE_END;

    CASE_BEGIN("ZRANGE zset 0 -1 withscores");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    CHECK(kv_zrange(client, key, strlen(key), 0, -1, &q_mem, &q_len, &q_ind_len, ZSET_WITH_SCORES, &q_score) == KV_SUCCESS);
    walk_rank_result(q_mem, q_len, q_ind_len, &q_score, NULL, NULL, memkey, memval, n_written);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, NULL, NULL);
    CASE_END;

    CASE_BEGIN("ZRANGE zset 0 -1 withvals");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrange(client, key, strlen(key), 0, -1, &q_mem, &q_len, &q_ind_len, ZSET_WITH_VALUES, &q_val, &q_indv_len) == KV_SUCCESS);
    walk_rank_result(q_mem, q_len, q_ind_len, NULL, &q_val, &q_indv_len, memkey, memval, n_written);
    release_range_result(&q_mem, q_len, &q_ind_len, NULL, &q_val, &q_indv_len);
    CASE_END;

    CASE_BEGIN("ZRANGE zset 0 -1 withscores withvals");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrange(client, key, strlen(key), 0, -1, &q_mem, &q_len, &q_ind_len, ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_SUCCESS);
    walk_rank_result(q_mem, q_len, q_ind_len, &q_score, &q_val, &q_indv_len, memkey, memval, n_written);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CASE_END;

    /* The suffix is "suffix" with its terminating zero byte (length 7). The
     * suffix comparisons start past the member or value, so they run only
     * when the copy is at least that long. */
    CASE_BEGIN("ZRANGE zset 0 -1 withscores withvals [added suffix]");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrange_whole(client, key, strlen(key), 0, -1, &q_mem, &q_len, &q_ind_len, "suffix", strlen("suffix") + 1, ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_SUCCESS);
    if (q_mem != NULL && q_len != 0) {
        CHECK(q_len <= 5);
        for (i = 0; i < q_len && i < n_written; i++) {
            temp = convert_item(q_mem, q_ind_len, i);
            CHECK(temp != NULL);
            if (temp != NULL) {
                CHECK(strncmp(temp, memkey[i], strlen(memkey[i])) == 0);
                CHECK_IF(strlen(temp) >= strlen(memkey[i]), strncmp(temp + strlen(memkey[i]), "suffix", strlen("suffix")) == 0);
            }
            mm->release(temp);
            CHECK_THROUGH(q_score, q_score[i] == i);
            if (i % 2 == 1) {
                CHECK_THROUGH(q_val, q_val[i] == NULL);
            } else {
                temp = convert_item(q_val, q_indv_len, i);
                CHECK(temp != NULL);
                if (temp != NULL) {
                    CHECK(strncmp(temp, memval[i], strlen(memval[i])) == 0);
                    CHECK_IF(strlen(temp) >= strlen(memval[i]), strncmp(temp + strlen(memval[i]), "suffix", strlen("suffix")) == 0);
                }
                mm->release(temp);
            }
        }
    }
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CASE_END;

    /* Reversed, position i holds the member written at j = q_len - i - 1.
     * The value check follows j's parity (the same as i's for five
     * members), so an odd memval entry, never written, is never read; with
     * more than five entries, a j past the written ones fails its check. */
    CASE_BEGIN("ZREVRANGE zset 0 -1 withscores withvals");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrange(client, key, strlen(key), 0, -1, &q_mem, &q_len, &q_ind_len, ZSET_REVERSE | ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_SUCCESS);
    if (q_mem != NULL && q_len != 0) {
        CHECK(q_len <= 5);
        for (i = 0; i < q_len && i < n_written; i++) {
            j = q_len - i - 1;
            temp = convert_item(q_mem, q_ind_len, i);
            CHECK(temp != NULL);
            if (temp != NULL) {
                CHECK_IF(j < n_written, strcmp(temp, memkey[q_len - i - 1]) == 0);
            }
            mm->release(temp);
            CHECK_THROUGH(q_score, q_score[i] == q_len - i - 1);
            if (j % 2 == 1) {
                CHECK_THROUGH(q_val, q_val[i] == NULL);
            } else {
                temp = convert_item(q_val, q_indv_len, i);
                CHECK(temp != NULL);
                if (temp != NULL) {
                    CHECK_IF(j < n_written, strcmp(temp, memval[q_len - i - 1]) == 0);
                }
                mm->release(temp);
            }
        }
    }
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CASE_END;

    /* An absent key hands back nothing; whatever does arrive is released
     * after each call's checks (a no-op when the results are null). */
    CASE_BEGIN("ZRANGE zset 0 -1 withscores withvals - no result");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrange(client, "no_key", strlen("no_key"), 0, -1, &q_mem, &q_len, &q_ind_len, ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND);
    CHECK(q_mem == NULL);
    CHECK(q_val == NULL);
    CHECK(q_score == NULL);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CHECK(kv_zrange_whole(client, "no_key", strlen("no_key"), 0, -1, &q_mem, &q_len, &q_ind_len, "suffix", strlen("suffix"), ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND);
    CHECK(q_mem == NULL);
    CHECK(q_val == NULL);
    CHECK(q_score == NULL);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CASE_END;
}

/* Expected order of a ZRANGEBYSCORE result, as indices into mem, score and
 * val: positions 0 to 3 of the set, or 2 and 3 with the limit 2, 2. Returns
 * the number of entries written. */
static uint32_t fill_rez(int32_t *rez, bool with_limit)
{
    if (with_limit) {
        rez[0] = 2;
        rez[1] = 3;
        return 2;
    }
    rez[0] = 1;
    rez[1] = 0;
    rez[2] = 2;
    rez[3] = 3;
    return 4;
}

/* Walks a ZRANGEBYSCORE result against rez, the expected order as indices
 * into mem, score and val: per index the member, then its score, then its
 * value or its absence, each where the call was given those variables (pass
 * NULL for the ones it was not). Value checks follow the parity of rez[i],
 * the member's index in mem: even members carry a value, odd ones none. The
 * walk never goes past the rez_len entries of rez: a longer result has
 * already failed its q_len check. A member copy that could not be made
 * fails the member comparison. */
static void walk_score_result(void **q_mem, size_t q_len, size_t *q_ind_len, double **scores,
                              void ***values, size_t **value_lens, const char *const *mem,
                              const double *score, const char *const *val, const int32_t *rez,
                              uint32_t rez_len)
{
    double *q_score = scores != NULL ? *scores : NULL;
    void **q_val = values != NULL ? *values : NULL;
    size_t *q_indv_len = value_lens != NULL ? *value_lens : NULL;
    uint32_t i;
    char *temp;

    if (q_mem == NULL || q_len == 0)
        return;
    for (i = 0; i < q_len && i < rez_len; i++) {
        temp = convert_item(q_mem, q_ind_len, i);
        CHECK_THROUGH(temp, strcmp(temp, mem[rez[i]]) == 0);
        mm->release(temp);
        if (scores != NULL) {
            CHECK_THROUGH(q_score, q_score[i] == score[rez[i]]);
        }
        if (values == NULL)
            continue;
        if (rez[i] % 2 == 1) {
            CHECK_THROUGH(q_val, q_val[i] == NULL);
        } else {
            temp = convert_item(q_val, q_indv_len, i);
            CHECK(temp != NULL);
            if (temp != NULL) {
                CHECK(strcmp(temp, val[rez[i]]) == 0);
            }
            mm->release(temp);
        }
    }
}

static void suite_zrangebyscore(void)
{
    const char *key = "zset";
    const char *mem[5] = {"foo", "bar", "aaa", "bbb", "ccc"};
    double score[5] = {1.0, 1.0, 1.5, 2.0, 3.0};
    const char *val[5] = {"val1", NULL, "val2", NULL, "val3"};
    int32_t rez[4];
    uint32_t rez_len; /* entries of rez the current case filled */
    uint32_t i;
    void **q_mem;
    size_t q_len;
    size_t *q_ind_len;
    double *q_score;
    void **q_val;
    size_t *q_indv_len;
    char *temp;

    CASE_BEGIN("ZADD zset = {<1 - foo>, <1 - bar>, <1.5 - aaa>, <2 - bbb>, <3 - ccc>}");
    kv_del(client, "zset", 4);
    for (i = 0; i < 5; i++) {
        if (i % 2 == 0) {
            CHECK(kv_zaddval(client, key, strlen(key), score[i], mem[i], strlen(mem[i]), val[i], strlen(val[i]), 0) == KV_SUCCESS);
        } else {
            CHECK(kv_zadd(client, key, strlen(key), score[i], mem[i], strlen(mem[i]), 0) == KV_SUCCESS);
        }
    }
    CASE_END;

    CASE_BEGIN("ZRANGEBYSCORE zset 1 2");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    CHECK(kv_zrangebyscore(client, key, strlen(key), 1, 2, &q_mem, &q_len, &q_ind_len, 0) == KV_SUCCESS);
    CHECK(q_len == 4);
    rez_len = fill_rez(rez, false);
    walk_score_result(q_mem, q_len, q_ind_len, NULL, NULL, NULL, mem, score, val, rez, rez_len);
    release_range_result(&q_mem, q_len, &q_ind_len, NULL, NULL, NULL);
    CASE_END;

    CASE_BEGIN("ZRANGEBYSCORE zset 1 2 withscores");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    CHECK(kv_zrangebyscore(client, key, strlen(key), 1, 2, &q_mem, &q_len, &q_ind_len, ZSET_WITH_SCORES, &q_score) == KV_SUCCESS);
    CHECK(q_len == 4);
    rez_len = fill_rez(rez, false);
    walk_score_result(q_mem, q_len, q_ind_len, &q_score, NULL, NULL, mem, score, val, rez, rez_len);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, NULL, NULL);
    CASE_END;

    CASE_BEGIN("ZRANGEBYSCORE zset 1 2 limit 2 2");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    CHECK(kv_zrangebyscore(client, key, strlen(key), 1, 2, &q_mem, &q_len, &q_ind_len, ZSET_WITH_LIMIT, 2, 2) == KV_SUCCESS);
    CHECK(q_len == 2);
    rez_len = fill_rez(rez, true);
    walk_score_result(q_mem, q_len, q_ind_len, NULL, NULL, NULL, mem, score, val, rez, rez_len);
    release_range_result(&q_mem, q_len, &q_ind_len, NULL, NULL, NULL);
    CASE_END;

    CASE_BEGIN("ZRANGEBYSCORE zset 1 2 limit 2 2 withscores");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    CHECK(kv_zrangebyscore(client, key, strlen(key), 1, 2, &q_mem, &q_len, &q_ind_len, ZSET_WITH_LIMIT | ZSET_WITH_SCORES, 2, 2, &q_score) == KV_SUCCESS);
    CHECK(q_len == 2);
    rez_len = fill_rez(rez, true);
    walk_score_result(q_mem, q_len, q_ind_len, &q_score, NULL, NULL, mem, score, val, rez, rez_len);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, NULL, NULL);
    CASE_END;

    CASE_BEGIN("ZRANGEBYSCORE zset 1 2 withvals");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrangebyscore(client, key, strlen(key), 1, 2, &q_mem, &q_len, &q_ind_len, ZSET_WITH_VALUES, &q_val, &q_indv_len) == KV_SUCCESS);
    CHECK(q_len == 4);
    rez_len = fill_rez(rez, false);
    walk_score_result(q_mem, q_len, q_ind_len, NULL, &q_val, &q_indv_len, mem, score, val, rez, rez_len);
    release_range_result(&q_mem, q_len, &q_ind_len, NULL, &q_val, &q_indv_len);
    CASE_END;

    CASE_BEGIN("ZRANGEBYSCORE zset 1 2 withscores withvals");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrangebyscore(client, key, strlen(key), 1, 2, &q_mem, &q_len, &q_ind_len, ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_SUCCESS);
    CHECK(q_len == 4);
    rez_len = fill_rez(rez, false);
    walk_score_result(q_mem, q_len, q_ind_len, &q_score, &q_val, &q_indv_len, mem, score, val, rez, rez_len);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CASE_END;

    CASE_BEGIN("ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrangebyscore(client, key, strlen(key), 1, 2, &q_mem, &q_len, &q_ind_len, ZSET_WITH_LIMIT | ZSET_WITH_SCORES | ZSET_WITH_VALUES, 2, 2, &q_score, &q_val, &q_indv_len) == KV_SUCCESS);
    CHECK(q_len == 2);
    rez_len = fill_rez(rez, true);
    walk_score_result(q_mem, q_len, q_ind_len, &q_score, &q_val, &q_indv_len, mem, score, val, rez, rez_len);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CASE_END;

    /* The suffix comparisons start past the member or value, so they run
     * only when the copy is at least that long. */
    CASE_BEGIN("ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals - with suffix");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrangebyscore_whole(client, key, strlen(key), 1, 2, &q_mem, &q_len, &q_ind_len, "suffix", strlen("suffix") + 1, ZSET_WITH_LIMIT | ZSET_WITH_SCORES | ZSET_WITH_VALUES, 2, 2, &q_score, &q_val, &q_indv_len) == KV_SUCCESS);
    CHECK(q_len == 2);
    rez_len = fill_rez(rez, true);
    if (q_mem != NULL && q_len != 0) {
        for (i = 0; i < q_len && i < rez_len; i++) {
            temp = convert_item(q_mem, q_ind_len, i);
            CHECK_THROUGH(temp, strncmp(temp, mem[rez[i]], strlen(mem[rez[i]])) == 0);
            CHECK_IF(temp != NULL && strlen(temp) >= strlen(mem[rez[i]]), strncmp(temp + strlen(mem[rez[i]]), "suffix", strlen("suffix")) == 0);
            mm->release(temp);
            CHECK_THROUGH(q_score, q_score[i] == score[rez[i]]);
            if (rez[i] % 2 == 1) {
                CHECK_THROUGH(q_val, q_val[i] == NULL);
            } else {
                temp = convert_item(q_val, q_indv_len, i);
                CHECK(temp != NULL);
                if (temp != NULL) {
                    CHECK(strncmp(temp, val[rez[i]], strlen(val[rez[i]])) == 0);
                    CHECK_IF(strlen(temp) >= strlen(val[rez[i]]), strncmp(temp + strlen(val[rez[i]]), "suffix", strlen("suffix")) == 0);
                }
                mm->release(temp);
            }
        }
    }
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CASE_END;

    /* The second call starts from what the first one left. Whatever does
     * arrive is released after each call's checks (a no-op when the results
     * are null). */
    CASE_BEGIN("ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals - no result");
    q_mem = NULL;
    q_len = 0;
    q_ind_len = NULL;
    q_score = NULL;
    q_val = NULL;
    q_indv_len = NULL;
    CHECK(kv_zrangebyscore(client, "no_key", strlen("no_key"), 1, 2, &q_mem, &q_len, &q_ind_len, ZSET_WITH_LIMIT | ZSET_WITH_SCORES | ZSET_WITH_VALUES, 2, 2, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND);
    CHECK(q_len == 0);
    CHECK(q_mem == NULL);
    CHECK(q_val == NULL);
    CHECK(q_score == NULL);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CHECK(kv_zrangebyscore_whole(client, "no_key", strlen("no_key"), 1, 2, &q_mem, &q_len, &q_ind_len, "suffix", strlen("suffix") + 1, ZSET_WITH_LIMIT | ZSET_WITH_SCORES | ZSET_WITH_VALUES, 2, 2, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND);
    CHECK(q_len == 0);
    CHECK(q_mem == NULL);
    CHECK(q_val == NULL);
    CHECK(q_score == NULL);
    release_range_result(&q_mem, q_len, &q_ind_len, &q_score, &q_val, &q_indv_len);
    CASE_END;
}

static void suite_zrank(void)
{
    const char *key = "zset";
    double memscore[3] = {2.3, 1.0, 5.2};
    const char *memkey[3] = {"foo", "bar", "last"};
    const char *memval[3] = {"val1", "xvcsd", "fffff"};
    uint32_t i;
    /* Only kv_zrank writes these. val starts as RELEASED so that a call
     * that fails without writing it leaves nothing to read or release. */
    char *val = static_cast<char *>(RELEASED);
    size_t val_len = SIZE_MAX;

    kv_del(client, "zset", 4);

    CASE_BEGIN("ZRANK - sorted sets");
    for (i = 0; i < 3; i++) {
        CHECK(kv_zaddval(client, key, strlen(key), memscore[i], memkey[i], strlen(memkey[i]), memval[i], strlen(memval[i]), 0) == KV_SUCCESS);
    }
    CHECK(kv_zrank(client, key, strlen(key), memkey[0], strlen(memkey[0]), &i, ZSET_DEFAULT) == KV_SUCCESS);
    CHECK(i == 1);
    CHECK(kv_zrank(client, key, strlen(key), memkey[2], strlen(memkey[2]), &i, ZSET_DEFAULT) == KV_SUCCESS);
    CHECK(i == 2);
    CHECK(kv_zrank(client, key, strlen(key), memkey[2], strlen(memkey[2]), &i, ZSET_REVERSE) == KV_SUCCESS);
    CHECK(i == 0);
    CHECK(kv_zrank(client, key, strlen(key), memkey[1], strlen(memkey[1]), &i, ZSET_REVERSE) == KV_SUCCESS);
    CHECK(i == 2);
    CHECK(kv_zrank(client, key, strlen(key), memkey[0], strlen(memkey[0]), &i, ZSET_WITH_VALUES, &val, &val_len) == KV_SUCCESS);
    CHECK(i == 1);
    CHECK(val_len == strlen(memval[0]));
    CHECK_THROUGH(val, strncmp(val, memval[0], val_len) == 0);
    release_value(&val);
    CHECK(kv_zrank(client, key, strlen(key), memkey[2], strlen(memkey[2]), &i, ZSET_WITH_VALUES, &val, &val_len) == KV_SUCCESS);
    CHECK(i == 2);
    CHECK(val_len == strlen(memval[2]));
    CHECK_THROUGH(val, strncmp(val, memval[2], val_len) == 0);
    release_value(&val);
    CHECK(kv_zrank(client, key, strlen(key), memkey[2], strlen(memkey[2]), &i, ZSET_REVERSE | ZSET_WITH_VALUES, &val, &val_len) == KV_SUCCESS);
    CHECK(i == 0);
    CHECK(val_len == strlen(memval[2]));
    CHECK_THROUGH(val, strncmp(val, memval[2], val_len) == 0);
    release_value(&val);
    CHECK(kv_zrank(client, key, strlen(key), memkey[1], strlen(memkey[1]), &i, ZSET_REVERSE | ZSET_WITH_VALUES, &val, &val_len) == KV_SUCCESS);
    CHECK(i == 2);
    CHECK(val_len == strlen(memval[1]));
    CHECK_THROUGH(val, strncmp(val, memval[1], val_len) == 0);
    release_value(&val);
    CASE_END;

    /* i holds 2, val_len 5 and val RELEASED from the last call: every
     * empty-result check below passes only on the library's own writes.
     * A value that arrives all the same is released after its checks. */
    CASE_BEGIN("ZRANK - on empty or non sorted sets");
    CHECK(kv_zrank(client, "nozset", strlen("nozset"), memkey[0], strlen(memkey[0]), &i, ZSET_DEFAULT) == KV_NOTFOUND);
    CHECK(i == 0);
    CHECK(kv_zrank(client, "nozset", strlen("nozset"), memkey[0], strlen(memkey[0]), &i, ZSET_WITH_VALUES, &val, &val_len) == KV_NOTFOUND);
    CHECK(i == 0);
    CHECK(val_len == 0);
    CHECK(val == 0);
    release_value(&val);
    CHECK(kv_zrank(client, "nozset", strlen("nozset"), memkey[0], strlen(memkey[0]), &i, ZSET_REVERSE | ZSET_WITH_VALUES, &val, &val_len) == KV_NOTFOUND);
    CHECK(i == 0);
    CHECK(val_len == 0);
    CHECK(val == 0);
    release_value(&val);
    CHECK(kv_zrank(client, key, strlen(key), "nokey", strlen("nokey"), &i, ZSET_DEFAULT) == KV_NO_SET_KEY);
    CHECK(i == 0);
    CHECK(kv_zrank(client, key, strlen(key), "nokey", strlen("nokey"), &i, ZSET_WITH_VALUES, &val, &val_len) == KV_NO_SET_KEY);
    CHECK(i == 0);
    CHECK(val_len == 0);
    CHECK(val == 0);
    release_value(&val);
    CHECK(kv_zrank(client, key, strlen(key), "nokey", strlen("nokey"), &i, ZSET_REVERSE | ZSET_WITH_VALUES, &val, &val_len) == KV_NO_SET_KEY);
    CHECK(i == 0);
    CHECK(val_len == 0);
    CHECK(val == 0);
    release_value(&val);
    CHECK(kv_sadd(client, "myset", strlen("myset"), "val", strlen("val"), 0) == KV_SUCCESS);
    CHECK(kv_zrank(client, "myset", strlen("myset"), memkey[0], strlen(memkey[0]), &i, ZSET_DEFAULT) == KV_WRONG_REPLY);
    CHECK(i == 0);
    CHECK(kv_zrank(client, "myset", strlen("myset"), memkey[0], strlen(memkey[0]), &i, ZSET_WITH_VALUES, &val, &val_len) == KV_WRONG_REPLY);
    CHECK(i == 0);
    CHECK(val_len == 0);
    CHECK(val == 0);
    release_value(&val);
    CHECK(kv_zrank(client, "myset", strlen("myset"), memkey[0], strlen(memkey[0]), &i, ZSET_REVERSE | ZSET_WITH_VALUES, &val, &val_len) == KV_WRONG_REPLY);
    CHECK(i == 0);
    CHECK(val_len == 0);
    CHECK(val == 0);
    release_value(&val);
    kv_del(client, "myset", 5);
    /* ZSET_WITH_LIMIT is refused before any optional argument is read, so
     * the call passes none. */
    CHECK(kv_zrank(client, key, strlen(key), memkey[0], strlen(memkey[0]), &i, ZSET_WITH_LIMIT | ZSET_REVERSE) == KV_INVALID_PARAMETER);
    CHECK(i == 0);
    CASE_END;
}

static void suite_zcard(void)
{
    const char *key = "zset";
    double memscore[3] = {2.3, 1.0, 5.2};
    const char *memkey[3] = {"foo", "bar", "last"};
    const char *memval[3] = {"val1", "xvcsd", "fffff"};
    uint32_t i;

    kv_del(client, "zset", 4);

    /* i is set to 10 before the counts, so a 0 only passes when the library
     * wrote it. */
    CASE_BEGIN("ZCARD - sorted sets");
    for (i = 0; i < 3; i++) {
        CHECK(kv_zaddval(client, key, strlen(key), memscore[i], memkey[i], strlen(memkey[i]), memval[i], strlen(memval[i]), 0) == KV_SUCCESS);
    }
    i = 10;
    CHECK(kv_zcard(client, key, strlen(key), &i) == KV_SUCCESS);
    CHECK(i == 3);
    CASE_END;

    CASE_BEGIN("ZCARD - on empty or non sorted sets");
    i = 10;
    CHECK(kv_zcard(client, "nozset", strlen("nozset"), &i) == KV_SUCCESS);
    CHECK(i == 0);
    CHECK(kv_sadd(client, "myset", strlen("myset"), "val", strlen("val"), 0) == KV_SUCCESS);
    i = 10;
    CHECK(kv_zcard(client, "myset", strlen("myset"), &i) == KV_WRONG_REPLY);
    CHECK(i == 0);
    kv_del(client, "myset", 5);
    CASE_END;
}

static void suite_zcount(void)
{
    const char *key = "zset";
    double memscore[3] = {2.3, 1.0, 5.2};
    const char *memkey[3] = {"foo", "bar", "last"};
    const char *memval[3] = {"val1", "xvcsd", "fffff"};
    uint32_t i;

    kv_del(client, "zset", 4);

    CASE_BEGIN("ZCOUNT - sorted sets");
    for (i = 0; i < 3; i++) {
        CHECK(kv_zaddval(client, key, strlen(key), memscore[i], memkey[i], strlen(memkey[i]), memval[i], strlen(memval[i]), 0) == KV_SUCCESS);
    }
    i = 10;
    CHECK(kv_zcount(client, key, strlen(key), 1, 2.2, &i) == KV_SUCCESS);
    CHECK(i == 1);
    CHECK(kv_zcount(client, key, strlen(key), 1, 5.2, &i) == KV_SUCCESS);
    CHECK(i == 3);
    CHECK(kv_zcount(client, key, strlen(key), 0.1, 0.9, &i) == KV_SUCCESS);
    CHECK(i == 0);
    CASE_END;

    CASE_BEGIN("ZCOUNT - on empty or non sorted sets");
    i = 10;
    CHECK(kv_zcount(client, "nozset", strlen("nozset"), 0, 1000, &i) == KV_SUCCESS);
    CHECK(i == 0);
    CHECK(kv_sadd(client, "myset", strlen("myset"), "val", strlen("val"), 0) == KV_SUCCESS);
    i = 10;
    CHECK(kv_zcount(client, "myset", strlen("myset"), 0, 1000, &i) == KV_WRONG_REPLY);
    CHECK(i == 0);
    kv_del(client, "myset", 5);
    CASE_END;
}

/* ---- Removal and increment suites -------------------------------------- */

static void suite_zrem(void)
{
    const char *key = "zset";
    const char *val = "foo";
    double score = 10;

    CASE_BEGIN("ZREM zset foo - foo exists");
    kv_del(client, "zset", 4);
    CHECK(kv_zadd(client, key, strlen(key), score, val, strlen(val), 0) == KV_SUCCESS);
    CHECK(kv_zrem(client, key, strlen(key), val, strlen(val)) == KV_SUCCESS);
    CASE_END;

    CASE_BEGIN("ZREM zset foo - foo doesn't exist");
    CHECK(kv_zrem(client, key, strlen(key), val, strlen(val)) == KV_NOTFOUND);
    CASE_END;
}

static void suite_zmrem(void)
{
    const char *key = "zset";
    double score[3] = {20, 30, 10};
    const char *memkeys[3] = {"key1", "key21", "key311"};
    size_t memkeys_len[3] = {4, 5, 6};
    const char *memvals[3] = {"val1", "vv", "kks"};
    size_t memvals_len[3] = {4, 2, 3};
    uint32_t deleted = 0; /* set once: every later value is the library's */

    CASE_BEGIN("ZMREM - multiple values");
    kv_del(client, "zset", 4);
    CHECK(kv_zmaddval(client, key, strlen(key), score, (const char*const*)memkeys, 3, memkeys_len, (const char*const*)memvals, memvals_len, 0) == KV_SUCCESS);
    memkeys[2] = "non_existant";
    memkeys_len[2] = 12;
    CHECK(kv_zmrem(client, key, strlen(key), (const char*const*)memkeys, 3, memkeys_len, &deleted) == KV_SUCCESS);
    CHECK(deleted == 2);
    CASE_END;

    CASE_BEGIN("ZMREM - not found");
    CHECK(kv_zmrem(client, key, strlen(key), (const char*const*)memkeys+2, 1, memkeys_len+2, &deleted) == KV_NOTFOUND);
    CHECK(deleted == 0);
    memkeys[2] = "key311";
    memkeys_len[2] = 6;
    CHECK(kv_zmrem(client, key, strlen(key), (const char*const*)memkeys, 3, memkeys_len, &deleted) == KV_SUCCESS);
    CHECK(deleted == 1);
    CHECK(kv_zmrem(client, key, strlen(key), (const char*const*)memkeys, 3, memkeys_len, &deleted) == KV_NOTFOUND);
    CHECK(deleted == 0);
    CASE_END;
}

static void suite_zremrangebyscore(void)
{
    const char *key = "zset";
    double score[5] = {1, 1, 1, 2, 3};
    const char *val[5] = {"foo", "bar", "aaa", "bbb", "ccc"};
    uint32_t count;
    int i;

    CASE_BEGIN("ZADD zset = {<1 - foo>, <1 - bar>, <1 - aaa>, <2 - bbb>, <3 - ccc>}");
    kv_del(client, "zset", 4);
    for (i = 0; i < 5; i++) {
        CHECK(kv_zadd(client, key, strlen(key), score[i], val[i], strlen(val[i]), 0) == KV_SUCCESS);
    }
    CASE_END;

    CASE_BEGIN("ZREMRANGEBYSCORE zset 1 2");
    count = 0;
    CHECK(kv_zremrangebyscore(client, key, strlen(key), 1, 2, &count) == KV_SUCCESS);
    CHECK(count == 4);
    CASE_END;
}

static void suite_zremrangebyrank(void)
{
    const char *key = "zset";
    double memscore[3] = {2.3, 1.0, 5.2};
    const char *memkey[3] = {"foo", "bar", "last"};
    const char *memval[3] = {"val1", "xvcsd", "fffff"};
    uint32_t i;

    /* i is never set before a removal: it holds 3 after a fill loop or the
     * previous call's count, so every expected count is the library's. */
    kv_del(client, "zset", 4);
    CASE_BEGIN("ZREMRANGEBYRANK - sorted sets");
    for (i = 0; i < 3; i++) {
        CHECK(kv_zaddval(client, key, strlen(key), memscore[i], memkey[i], strlen(memkey[i]), memval[i], strlen(memval[i]), 0) == KV_SUCCESS);
    }
    CHECK(kv_zremrangebyrank(client, key, strlen(key), 1, 1, &i) == KV_SUCCESS);
    CHECK(i == 1);
    for (i = 0; i < 3; i++)
        kv_zaddval(client, key, strlen(key), memscore[i], memkey[i], strlen(memkey[i]), memval[i], strlen(memval[i]), 0);
    CHECK(kv_zremrangebyrank(client, key, strlen(key), 1, 2, &i) == KV_SUCCESS);
    CHECK(i == 2);
    for (i = 0; i < 3; i++)
        kv_zaddval(client, key, strlen(key), memscore[i], memkey[i], strlen(memkey[i]), memval[i], strlen(memval[i]), 0);
    CHECK(kv_zremrangebyrank(client, key, strlen(key), -1, -3, &i) == KV_SUCCESS);
    CHECK(i == 0);
    CHECK(kv_zremrangebyrank(client, key, strlen(key), -3, -1, &i) == KV_SUCCESS);
    CHECK(i == 3);
    for (i = 0; i < 3; i++)
        kv_zaddval(client, key, strlen(key), memscore[i], memkey[i], strlen(memkey[i]), memval[i], strlen(memval[i]), 0);
    CASE_END;

    CASE_BEGIN("ZREMRANGEBYRANK - on empty or non sorted sets");
    CHECK(kv_zremrangebyrank(client, key, strlen(key), 20, 21, &i) == KV_SUCCESS);
    CHECK(i == 0);
    CHECK(kv_zremrangebyrank(client, "nozset", strlen("nozset"), 0, 1000, &i) == KV_SUCCESS);
    CHECK(i == 0);
    CHECK(kv_sadd(client, "myset", strlen("myset"), "val", strlen("val"), 0) == KV_SUCCESS);
    CHECK(kv_zremrangebyrank(client, "myset", strlen("myset"), 0, 1000, &i) == KV_WRONG_REPLY);
    CHECK(i == 0);
    kv_del(client, "myset", 5);
    CASE_END;
}

static void suite_zincrby(void)
{
    const char *key = "zset";
    double memscore[3] = {2.3, 1.0, 5.2};
    const char *memkey[3] = {"foo", "bar", "last"};
    const char *memval[3] = {"val1", "xvcsd", "fffff"};
    int i;
    /* Only the library writes these; the start values are ones no check
     * expects, and val starts as RELEASED so nothing unwritten is read or
     * released. */
    double q_score = -1.0;
    char *val = static_cast<char *>(RELEASED);
    size_t val_len = SIZE_MAX;
    int32_t ttl = -1;

    kv_del(client, "zset", 4);

    /* Scores are compared exactly: the library must return the double sum
     * (2.3 + 1.8 - 4 is 0.09999999999999964, not 0.1). */
    CASE_BEGIN("ZINCRBY - sorted sets");
    for (i = 0; i < 3; i++) {
        CHECK(kv_zaddval(client, key, strlen(key), memscore[i], memkey[i], strlen(memkey[i]), memval[i], strlen(memval[i]), 0) == KV_SUCCESS);
    }
    CHECK(kv_zincrby(client, key, strlen(key), memkey[0], strlen(memkey[0]), 1.8, &q_score, 0) == KV_SUCCESS);
    CHECK(q_score == (memscore[0] + 1.8));
    CHECK(kv_zincrby(client, key, strlen(key), memkey[0], strlen(memkey[0]), -4, &q_score, 0) == KV_SUCCESS);
    CHECK(q_score == (memscore[0] + 1.8 - 4));
    CHECK(kv_zincrby(client, key, strlen(key), memkey[2], strlen(memkey[2]), 0, &q_score, 0) == KV_SUCCESS);
    CHECK(q_score == memscore[2]);
    CHECK(kv_zincrby(client, key, strlen(key), memkey[1], strlen(memkey[1]), 0.4, &q_score, 0) == KV_SUCCESS);
    CHECK(q_score == (memscore[1] + 0.4));
    CASE_END;

    CASE_BEGIN("ZINCRBY - on empty or non sorted sets");
    CHECK(kv_zincrby(client, "nozset", strlen("nozset"), memkey[0], strlen(memkey[0]), 1.8, &q_score, 0) == KV_SUCCESS);
    CHECK(q_score == 1.8);
    CHECK(kv_zscore(client, "nozset", strlen("nozset"),memkey[0], strlen(memkey[0]), &q_score, &val, &val_len) == KV_SUCCESS);
    CHECK(q_score == 1.8);
    CHECK(val_len == 0);
    CHECK(val == NULL);
    release_value(&val); /* a member made by an increment has no value */
    kv_del(client, "nozset", 6);
    CHECK(kv_sadd(client, "myset", strlen("myset"), "val", strlen("val"), 0) == KV_SUCCESS);
    CHECK(kv_zincrby(client, "myset", strlen("myset"), memkey[2], strlen(memkey[2]), 2, &q_score, 0) == KV_WRONG_REPLY);
    CHECK(q_score == 0);
    kv_del(client, "myset", 5);
    CASE_END;

    CASE_BEGIN("ZINCRBY - with TTL without commit");
    CHECK(kv_zincrby(client, "zincrTTL", 8, memkey[2], strlen(memkey[2]), 2, &q_score, 7200) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zincrTTL", 8, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zincrby(client, "zincrTTL", 8, memkey[2], strlen(memkey[2]), 2, &q_score, 5000) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zincrTTL", 8, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CASE_END;

    CASE_BEGIN("ZINCRBY - with TTL and commit");
    CHECK(kv_zincrby(client, "zincrTTLcommit", 14, memkey[1], strlen(memkey[1]), 1, &q_score, COMMIT_TTL(7200)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zincrTTLcommit", 14, &ttl) == KV_SUCCESS);
    CHECK(ttl == 7200);
    CHECK(kv_zincrby(client, "zincrTTLcommit", 14, memkey[1], strlen(memkey[1]), 2, &q_score, COMMIT_TTL(8000)) == KV_SUCCESS);
    CHECK(kv_get_ttl(client, "zincrTTLcommit", 14, &ttl) == KV_SUCCESS);
    CHECK(ttl == 8000);
    CASE_END;
}

/* ---- Run driver -------------------------------------------------------- */

int main()
{
    mm = kv_mm_create(0, 0, 0, 0);
    client = kv_client_create(1, 2, mm, 2);

    /* Outside any case: a failure shows only as its failure line. */
    CHECK(kv_server_add(client, HOST, PORT, NULL) == KV_SUCCESS);

    suite_zadd();
    suite_zmadd();
    suite_zaddval();
    suite_zmaddval();
    suite_zaddvalmax();
    suite_zaddmaxinc();
    suite_zadddis();
    suite_zscore();
    suite_zrange();
    suite_zrem();
    suite_zmrem();
    suite_zrangebyscore();
    suite_zremrangebyscore();
    suite_zcard();
    suite_zcount();
    suite_zincrby();
    suite_zrank();
    suite_zremrangebyrank();

    printf("=============================== %s: PASSED = %d, FAILED = %d =========================================\n",
           "ZSET", passed_count, failed_count);

    kv_client_destroy(client);
    kv_mm_destroy(mm);
    return 0;
}
