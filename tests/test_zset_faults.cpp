// test_zset_faults.cpp -- zset against a library with one fault at a time.
//
// Each fault of the injector (fault_injector.cpp) is one test: zset runs
// against a fresh private server with the fault in place, and its transcript
// must name exactly the checks such a library fails -- those cases FAILED,
// with exactly these condition texts in this order, every other case PASSED,
// all 68 cases and the summary with the right counts, exit status 0, and
// nothing on standard error (the injector reports unreleased buffers there).
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "fault_injector.h"
#include "redis_server.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

using Lines = std::vector<std::string>;

// The 68 cases in run order.
const Lines kTitles = {
    "ZADD zset 10 foo - add a new value to zset",
    "ZADD zset 5 foo - add a duplicate value to zset",
    "ZADD - with TTL without commit",
    "ZADD - with TTL and commit",
    "ZMADD - add multiple values to zset",
    "ZMADD - add a duplicate values to zset",
    "ZMADD - with TTL without commit",
    "ZMADD - with TTL and commit",
    "ZADDVAL - <member, value> sorted sets",
    "ZADDVAL - add a duplicate value to zset",
    "ZADDVAL - with TTL without commit",
    "ZADDVAL - with TTL and commit",
    "ZMADDVAL - add multiple keys and values to zset",
    "ZMADDVAL - add a duplicate keys to zset",
    "ZMADDVAL - with TTL without commit",
    "ZMADDVAL - with TTL and commit",
    "ZADDVALMAX - <member, value> sorted sets",
    "ZADDVALMAX - add a duplicate value to zset",
    "ZADDVALMAX - with TTL without commit",
    "ZADDVALMAX - with TTL and commit",
    "ZADDMAXINC - integer sorted sets",
    "ZADDMAXINC - integer value is already present in zset",
    "ZADDMAXINC - with TTL without commit",
    "ZADDMAXINC - with TTL and commit",
    "ZADDDIS - check (score - max) > drift",
    "ZADDDIS - check (score - max) < drift",
    "ZADDDIS - check duplicate key",
    "ZADDDIS - with TTL without commit",
    "ZADDDIS - with TTL and commit",
    "ZSCORE - zset and memkey found",
    "ZSCORE - no zset found",
    "ZSCORE - zset exists BUT memkey is not found",
    "ZADD zset i foo_i - add 5 new values to zset",
    "ZRANGE zset 0 -1",
    "ZRANGE zset 0 -1 withscores",
    "ZRANGE zset 0 -1 withvals",
    "ZRANGE zset 0 -1 withscores withvals",
    "ZRANGE zset 0 -1 withscores withvals [added suffix]",
    "ZREVRANGE zset 0 -1 withscores withvals",
    "ZRANGE zset 0 -1 withscores withvals - no result",
    "ZREM zset foo - foo exists",
    "ZREM zset foo - foo doesn't exist",
    "ZMREM - multiple values",
    "ZMREM - not found",
    "ZADD zset = {<1 - foo>, <1 - bar>, <1.5 - aaa>, <2 - bbb>, <3 - ccc>}",
    "ZRANGEBYSCORE zset 1 2",
    "ZRANGEBYSCORE zset 1 2 withscores",
    "ZRANGEBYSCORE zset 1 2 limit 2 2",
    "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores",
    "ZRANGEBYSCORE zset 1 2 withvals",
    "ZRANGEBYSCORE zset 1 2 withscores withvals",
    "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals",
    "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals - with suffix",
    "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals - no result",
    "ZADD zset = {<1 - foo>, <1 - bar>, <1 - aaa>, <2 - bbb>, <3 - ccc>}",
    "ZREMRANGEBYSCORE zset 1 2",
    "ZCARD - sorted sets",
    "ZCARD - on empty or non sorted sets",
    "ZCOUNT - sorted sets",
    "ZCOUNT - on empty or non sorted sets",
    "ZINCRBY - sorted sets",
    "ZINCRBY - on empty or non sorted sets",
    "ZINCRBY - with TTL without commit",
    "ZINCRBY - with TTL and commit",
    "ZRANK - sorted sets",
    "ZRANK - on empty or non sorted sets",
    "ZREMRANGEBYRANK - sorted sets",
    "ZREMRANGEBYRANK - on empty or non sorted sets",
};

// A fault and the cases it must fail, each with its failure lines' condition
// texts in order.
struct Fault {
    std::string name;
    std::vector<std::pair<std::string, Lines>> failing;
    Lines outside = {};    // failure lines outside any case
    std::string err = {};  // what the injector writes to standard error
};

void PrintTo(const Fault& f, std::ostream* os) { *os << f.name; }

Lines rep(int n, const Lines& block) {
    Lines out;
    for (int k = 0; k < n; ++k) out.insert(out.end(), block.begin(), block.end());
    return out;
}

// The time-to-live cases: eight writing suites, each with a case without and
// a case with commit.
const Lines kTtlSuites = {"ZADD", "ZMADD", "ZADDVAL", "ZMADDVAL",
                          "ZADDVALMAX", "ZADDMAXINC", "ZADDDIS", "ZINCRBY"};
std::vector<std::pair<std::string, Lines>> ttl_cases(const Lines* without, const Lines* with) {
    std::vector<std::pair<std::string, Lines>> out;
    for (const auto& s : kTtlSuites) {
        if (without) out.emplace_back(s + " - with TTL without commit", *without);
        if (with) out.emplace_back(s + " - with TTL and commit", *with);
    }
    return out;
}

// Case titles used more than once below.
const std::string kZaddDup = "ZADD zset 5 foo - add a duplicate value to zset";
const std::string kZmadd1 = "ZMADD - add multiple values to zset";
const std::string kZmadd2 = "ZMADD - add a duplicate values to zset";
const std::string kZaddval1 = "ZADDVAL - <member, value> sorted sets";
const std::string kZaddval2 = "ZADDVAL - add a duplicate value to zset";
const std::string kZmaddval1 = "ZMADDVAL - add multiple keys and values to zset";
const std::string kZmaddval2 = "ZMADDVAL - add a duplicate keys to zset";
const std::string kZvmax1 = "ZADDVALMAX - <member, value> sorted sets";
const std::string kZvmax2 = "ZADDVALMAX - add a duplicate value to zset";
const std::string kZinc1 = "ZADDMAXINC - integer sorted sets";
const std::string kZinc2 = "ZADDMAXINC - integer value is already present in zset";
const std::string kDis1 = "ZADDDIS - check (score - max) > drift";
const std::string kDis2 = "ZADDDIS - check (score - max) < drift";
const std::string kDis3 = "ZADDDIS - check duplicate key";
const std::string kScore1 = "ZSCORE - zset and memkey found";
const std::string kScore2 = "ZSCORE - no zset found";
const std::string kScore3 = "ZSCORE - zset exists BUT memkey is not found";
const std::string kR = "ZRANGE zset 0 -1";
const std::string kRS = "ZRANGE zset 0 -1 withscores";
const std::string kRV = "ZRANGE zset 0 -1 withvals";
const std::string kRSV = "ZRANGE zset 0 -1 withscores withvals";
const std::string kRX = "ZRANGE zset 0 -1 withscores withvals [added suffix]";
const std::string kRRev = "ZREVRANGE zset 0 -1 withscores withvals";
const std::string kRNone = "ZRANGE zset 0 -1 withscores withvals - no result";
const std::string kB = "ZRANGEBYSCORE zset 1 2";
const std::string kBS = "ZRANGEBYSCORE zset 1 2 withscores";
const std::string kBL = "ZRANGEBYSCORE zset 1 2 limit 2 2";
const std::string kBLS = "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores";
const std::string kBV = "ZRANGEBYSCORE zset 1 2 withvals";
const std::string kBSV = "ZRANGEBYSCORE zset 1 2 withscores withvals";
const std::string kBLSV = "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals";
const std::string kBX = "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals - with suffix";
const std::string kBNone = "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals - no result";
const std::string kCard2 = "ZCARD - on empty or non sorted sets";
const std::string kCount2 = "ZCOUNT - on empty or non sorted sets";
const std::string kIncr1 = "ZINCRBY - sorted sets";
const std::string kIncr2 = "ZINCRBY - on empty or non sorted sets";
const std::string kRank1 = "ZRANK - sorted sets";
const std::string kRank2 = "ZRANK - on empty or non sorted sets";
const std::string kRbr1 = "ZREMRANGEBYRANK - sorted sets";
const std::string kRbr2 = "ZREMRANGEBYRANK - on empty or non sorted sets";

// Condition texts of the range walks. ZRANGE:
const std::string T = "temp != NULL";
const std::string K = "strcmp(temp, memkey[i]) == 0";
const std::string Si = "q_score[i] == i";
const std::string N = "q_val[i] == NULL";
const std::string V = "strcmp(temp, memval[i]) == 0";
const std::string KSuf = R"(strncmp(temp + strlen(memkey[i]), "suffix", strlen("suffix")) == 0)";
const std::string VPre = "strncmp(temp, memval[i], strlen(memval[i])) == 0";
const std::string VSuf = R"(strncmp(temp + strlen(memval[i]), "suffix", strlen("suffix")) == 0)";
const std::string RK = "strcmp(temp, memkey[q_len - i - 1]) == 0";
const std::string RS = "q_score[i] == q_len - i - 1";
const std::string RV = "strcmp(temp, memval[q_len - i - 1]) == 0";
// ZRANGEBYSCORE:
const std::string M = "strcmp(temp, mem[rez[i]]) == 0";
const std::string S = "q_score[i] == score[rez[i]]";
const std::string BV = "strcmp(temp, val[rez[i]]) == 0";
const std::string MPre = "strncmp(temp, mem[rez[i]], strlen(mem[rez[i]])) == 0";
const std::string MSuf = R"(strncmp(temp + strlen(mem[rez[i]]), "suffix", strlen("suffix")) == 0)";
const std::string BVPre = "strncmp(temp, val[rez[i]], strlen(val[rez[i]])) == 0";
const std::string BVSuf = R"(strncmp(temp + strlen(val[rez[i]]), "suffix", strlen("suffix")) == 0)";

const std::string kSadd =
    R"(kv_sadd(client, "myset", strlen("myset"), "val", strlen("val"), 0) == KV_SUCCESS)";
const std::string kZscoreM =
    "kv_zscore(client, key, strlen(key), memkeys[i], memkeys_len[i], &q_score, &q_memval, "
    "&q_memval_len) == KV_SUCCESS";

std::vector<Fault> faults() {
    const Lines t7200 = {"ttl == 7200"}, t8000 = {"ttl == 8000"};
    const Lines both_plain = {"ttl == 7200", "ttl == 7200"};
    const Lines both_commit = {"ttl == 7200", "ttl == 8000"};
    std::vector<Fault> f = {
        // ---- set-up and keys of any kind ----
        {"server_add_status", {}, {"kv_server_add(client, HOST, PORT, NULL) == KV_SUCCESS"}},
        {"del_keeps_plain_sets", {{kCount2, {kSadd}}, {kIncr2, {kSadd}},
                                  {kRank2, {kSadd}}, {kRbr2, {kSadd}}}},
        {"sadd_status", {{kCard2, {kSadd}}, {kCount2, {kSadd}}, {kIncr2, {kSadd}},
                         {kRank2, {kSadd}}, {kRbr2, {kSadd}}}},
        {"get_ttl_off_by_one", ttl_cases(&both_plain, &both_commit)},
        {"commit_ttl_ignored", ttl_cases(nullptr, &t8000)},
        {"plain_ttl_applied", ttl_cases(&t7200, nullptr)},
        // ---- insertions ----
        {"zadd_dup_success",
         {{kZaddDup, {"kv_zadd(client, key, strlen(key), 5, val, strlen(val), 0) == KV_ALREADY_EXISTS"}}}},
        {"zadd_dup_keeps_score", {{kZaddDup, {"q_score == 5"}}}},
        {"zmadd_drops_last",
         {{kZmadd1, {kZscoreM, "q_score == score[i]"}},
          {kZmadd2, {"q_score == score[i]", kZscoreM, "q_score == score[i]"}}}},
        {"zaddval_value_short",
         {{kZaddval1, {R"(strncmp(memval, "myval", strlen("myval")) == 0)"}},
          {kZaddval2, {R"(strncmp(memval, "mynewval", strlen("mynewval")) == 0)"}},
          {kScore1, {R"(strncmp(memval, "bar", strlen("bar")) == 0)"}},
          {kRV, {V, V, V}},
          {kRSV, {V, V, V}},
          {kRX, rep(3, {VPre, VSuf})},
          {kRRev, {RV, RV, RV}},
          {kBV, {BV, BV}},
          {kBSV, {BV, BV}},
          {kBLSV, {BV}},
          {kBX, {BVPre, BVSuf}},
          {kRank1, {"val_len == strlen(memval[0])", "val_len == strlen(memval[2])",
                    "val_len == strlen(memval[2])", "val_len == strlen(memval[1])"}}}},
        {"zmaddval_dup_success",
         {{kZmaddval2, {"kv_zmaddval(client, key, strlen(key), score, (const char*const*)memkeys, 2, "
                        "memkeys_len, (const char*const*)memvals, memvals_len, 0) == KV_ALREADY_EXISTS"}}}},
        {"zaddvalmax_dup_success",
         {{kZvmax2, {R"(kv_zaddvalmax(client, key, strlen(key), memkey[0], strlen(memkey[0]), "mynewval", strlen("mynewval"), 10, 0) == KV_ALREADY_EXISTS)"}}}},
        {"zaddvalmax_ignores_max", {{kZvmax1, {"q_score == 12"}}, {kZvmax2, {"q_score == 22"}}}},
        {"zaddmaxinc_dup_success",
         {{kZinc2, {"kv_zaddmaxinc(client, key, strlen(key), 3, 0) == KV_ALREADY_EXISTS"}}}},
        {"zadddis_dup_success",
         {{kDis3, {R"(kv_zadddis(client, key, strlen(key), 10, "dup", strlen("dup"), 1, &memval, 0) == KV_ALREADY_EXISTS)"}}}},
        {"zadddis_no_name", {{kDis2, {R"(strcmp("bar", memval) == 0)"}}}},
        {"zadddis_wrong_name", {{kDis2, {R"(strcmp("bar", memval) == 0)"}}}},
        {"zadddis_spurious_name",
         {{kDis1, {"memval == NULL", "memval == NULL"}}, {kDis3, {"memval == NULL"}}}},
        // ---- kv_zscore ----
        {"zscore_noset_as_notfound",
         {{kDis1, {R"(kv_zscore(client, key, strlen(key), "foo", strlen("foo"), &q_score, &memval, &memval_len) == KV_NO_SET_KEY)"}},
          {kScore3, {R"(kv_zscore(client, key, strlen(key), "nokey", strlen("nokey"), &q_score, &memval, &memval_len) == KV_NO_SET_KEY)"}}}},
        {"zscore_score_ulp",
         {{"ZADD zset 10 foo - add a new value to zset", {"q_score == score"}},
          {kZaddDup, {"q_score == 5"}},
          {kZmadd1, rep(3, {"q_score == score[i]"})},
          {kZmadd2, rep(3, {"q_score == score[i]"})},
          {kZaddval1, {"q_score == 10"}},
          {kZaddval2, {"q_score == 5"}},
          {kZmaddval1, rep(3, {"q_score == score[i]"})},
          {kZmaddval2, rep(3, {"q_score == score[i]"})},
          {kZvmax1, {"q_score == 12"}},
          {kZvmax2, {"q_score == 22"}},
          {kZinc1, {"q_score == 4", "q_score == 12"}},
          {kZinc2, {"q_score == 15"}},
          {kDis1, {"q_score == 4", "q_score == 7"}},
          {kDis2, {"q_score == 5"}},
          {kDis3, {"q_score == 10"}},
          {kScore1, {"q_score == 10"}},
          {kIncr2, {"q_score == 1.8"}}}},
        {"zscore_value_short",
         {{kZaddval1, {R"(strncmp(memval, "myval", strlen("myval")) == 0)"}},
          {kZaddval2, {R"(strncmp(memval, "mynewval", strlen("mynewval")) == 0)"}},
          {kZmaddval1, rep(3, {"q_memval_len == memvals_len[i]",
                               "strncmp(q_memval, memvals[i], memvals_len[i]) == 0"})},
          {kZmaddval2, rep(3, {"q_memval_len == memvals_len[i]",
                               "strncmp(q_memval, memvals[i], memvals_len[i]) == 0"})},
          {kZvmax1, {R"(strncmp(memval, "myval2", strlen("myval2")) == 0)"}},
          {kZvmax2, {R"(strncmp(memval, "mynewval", strlen("mynewval")) == 0)"}},
          {kScore1, {R"(strncmp(memval, "bar", strlen("bar")) == 0)"}}}},
        {"zscore_spurious_value",
         {{"ZADD zset 10 foo - add a new value to zset", {"memval == NULL"}},
          {kZaddDup, {"memval == NULL"}},
          {kZmadd1, rep(3, {"q_memval == NULL"})},
          {kZmadd2, rep(3, {"q_memval == NULL"})},
          {kZinc1, {"memval == NULL", "memval == NULL"}},
          {kZinc2, {"memval == NULL"}},
          {kDis1, {"memval == NULL", "memval == NULL"}},
          {kDis2, {"memval == NULL"}},
          {kDis3, {"memval == NULL"}},
          {kIncr2, {"val_len == 0", "val == NULL"}}}},
        {"zscore_score_unwritten", {{kScore2, {"q_score == 0"}}, {kScore3, {"q_score == 0"}}}},
        {"zscore_value_unwritten", {{kScore2, {"memval == NULL"}}, {kScore3, {"memval == NULL"}}}},
        // ---- range reads ----
        {"range_absent_key_success",
         {{kRNone, {R"(kv_zrange(client, "no_key", strlen("no_key"), 0, -1, &q_mem, &q_len, &q_ind_len, ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND)",
                    R"(kv_zrange_whole(client, "no_key", strlen("no_key"), 0, -1, &q_mem, &q_len, &q_ind_len, "suffix", strlen("suffix"), ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND)"}},
          {kBNone, {R"(kv_zrangebyscore(client, "no_key", strlen("no_key"), 1, 2, &q_mem, &q_len, &q_ind_len, ZSET_WITH_LIMIT | ZSET_WITH_SCORES | ZSET_WITH_VALUES, 2, 2, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND)",
                    R"(kv_zrangebyscore_whole(client, "no_key", strlen("no_key"), 1, 2, &q_mem, &q_len, &q_ind_len, "suffix", strlen("suffix") + 1, ZSET_WITH_LIMIT | ZSET_WITH_SCORES | ZSET_WITH_VALUES, 2, 2, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND)"}}}},
        // "bar" and "foo" share score 1: swapped, each position holds the
        // other's member and value.
        {"range_tie_order",
         {{kB, {M, M}}, {kBS, {M, M}}, {kBV, {M, N, M, T}}, {kBSV, {M, N, M, T}}}},
        {"range_reverse_ignored",
         {{kRRev, {RK, RS, RV, RK, RS, RK, RS, RK, RS, RV}}}},
        // Without the limit the first two of the four come back: "bar"
        // (no value) and "foo" (a value) where "aaa" and "bbb" belong.
        {"range_limit_ignored",
         {{kBL, {"q_len == 2", M, M}},
          {kBLS, {"q_len == 2", M, S, M, S}},
          {kBLSV, {"q_len == 2", M, S, T, M, S, N}},
          {kBX, {"q_len == 2", MPre, S, T, MPre, S, N}}}},
        {"range_suffix_dropped",
         {{kRX, {KSuf, VSuf, KSuf, KSuf, VSuf, KSuf, KSuf, VSuf}}, {kBX, {MSuf, BVSuf, MSuf}}}},
        // One more entry: the count checks fail; the reversed walk, which
        // indexes by q_len, is off by one everywhere.
        {"range_extra_item",
         {{kR, {"q_len <= 5"}}, {kRS, {"q_len <= 5"}}, {kRV, {"q_len <= 5"}},
          {kRSV, {"q_len <= 5"}}, {kRX, {"q_len <= 5"}},
          {kRRev, {"q_len <= 5", RK, RS, N, RK, RS, T, RK, RS, N, RK, RS, T, RK, RS, N}},
          {kB, {"q_len == 4"}}, {kBS, {"q_len == 4"}}, {kBL, {"q_len == 2"}},
          {kBLS, {"q_len == 2"}}, {kBV, {"q_len == 4"}}, {kBSV, {"q_len == 4"}},
          {kBLSV, {"q_len == 2"}}, {kBX, {"q_len == 2"}}}},
        // One entry short: the ZRANGE walks accept a shorter result, the
        // reversed one and the ZRANGEBYSCORE counts do not.
        {"range_missing_item",
         {{kRRev, {RK, RS, N, RK, RS, T, RK, RS, N, RK, RS, T}},
          {kB, {"q_len == 4"}}, {kBS, {"q_len == 4"}}, {kBL, {"q_len == 2"}},
          {kBLS, {"q_len == 2"}}, {kBV, {"q_len == 4"}}, {kBSV, {"q_len == 4"}},
          {kBLSV, {"q_len == 2"}}, {kBX, {"q_len == 2"}}}},
        {"range_score_ulp",
         {{kRS, rep(5, {Si})}, {kRSV, rep(5, {Si})}, {kRX, rep(5, {Si})},
          {kRRev, rep(5, {RS})}, {kBS, rep(4, {S})}, {kBLS, rep(2, {S})},
          {kBSV, rep(4, {S})}, {kBLSV, rep(2, {S})}, {kBX, rep(2, {S})}}},
        // A value one byte short; with the suffix only its zero byte goes,
        // which the text comparisons cannot see.
        {"range_value_short",
         {{kRV, {V, V, V}}, {kRSV, {V, V, V}}, {kRRev, {RV, RV, RV}},
          {kBV, {BV, BV}}, {kBSV, {BV, BV}}, {kBLSV, {BV}}}},
        {"range_spurious_value",
         {{kRV, {N, N}}, {kRSV, {N, N}}, {kRX, {N, N}}, {kRRev, {N, N}},
          {kBV, {N, N}}, {kBSV, {N, N}}, {kBLSV, {N}}, {kBX, {N}}}},
        {"voidtostring_null",
         {{kR, rep(5, {T})}, {kRS, rep(5, {T})}, {kRV, rep(8, {T})}, {kRSV, rep(8, {T})},
          {kRX, rep(8, {T})}, {kRRev, rep(8, {T})},
          {kB, rep(4, {M})}, {kBS, rep(4, {M})}, {kBL, rep(2, {M})}, {kBLS, rep(2, {M})},
          {kBV, {M, M, T, M, T, M}}, {kBSV, {M, M, T, M, T, M}}, {kBLSV, {M, T, M}},
          {kBX, {MPre, MSuf, T, MPre, MSuf}}}},
        // ---- removals ----
        {"zrem_notfound_success",
         {{"ZREM zset foo - foo doesn't exist", {"kv_zrem(client, key, strlen(key), val, strlen(val)) == KV_NOTFOUND"}}}},
        {"zmrem_notfound_success",
         {{"ZMREM - not found",
           {"kv_zmrem(client, key, strlen(key), (const char*const*)memkeys+2, 1, memkeys_len+2, &deleted) == KV_NOTFOUND",
            "kv_zmrem(client, key, strlen(key), (const char*const*)memkeys, 3, memkeys_len, &deleted) == KV_NOTFOUND"}}}},
        {"zmrem_removed_unwritten", {{"ZMREM - not found", {"deleted == 0", "deleted == 0"}}}},
        {"zremrangebyscore_max_exclusive", {{"ZREMRANGEBYSCORE zset 1 2", {"count == 4"}}}},
        {"zremrangebyrank_stop_exclusive", {{kRbr1, {"i == 1", "i == 2", "i == 3"}}}},
        // ---- counts, increments, ranks ----
        {"zcard_count_unwritten", {{kCard2, {"i == 0"}}}},
        {"zcount_max_exclusive", {{"ZCOUNT - sorted sets", {"i == 3"}}}},
        {"zcount_count_unwritten", {{kCount2, {"i == 0"}}}},
        {"zincrby_wrong_kind_success",
         {{kIncr2, {R"(kv_zincrby(client, "myset", strlen("myset"), memkey[2], strlen(memkey[2]), 2, &q_score, 0) == KV_WRONG_REPLY)"}}}},
        {"zincrby_score_ulp",
         {{kIncr1, {"q_score == (memscore[0] + 1.8)", "q_score == (memscore[0] + 1.8 - 4)",
                    "q_score == memscore[2]", "q_score == (memscore[1] + 0.4)"}},
          {kIncr2, {"q_score == 1.8"}}}},
        {"zincrby_score_unwritten", {{kIncr2, {"q_score == 0"}}}},
        {"zrank_noset_as_notfound",
         {{kRank2, {R"(kv_zrank(client, key, strlen(key), "nokey", strlen("nokey"), &i, ZSET_DEFAULT) == KV_NO_SET_KEY)",
                    R"(kv_zrank(client, key, strlen(key), "nokey", strlen("nokey"), &i, ZSET_WITH_VALUES, &val, &val_len) == KV_NO_SET_KEY)",
                    R"(kv_zrank(client, key, strlen(key), "nokey", strlen("nokey"), &i, ZSET_REVERSE | ZSET_WITH_VALUES, &val, &val_len) == KV_NO_SET_KEY)"}}}},
        {"zrank_reverse_ignored", {{kRank1, {"i == 0", "i == 2", "i == 0", "i == 2"}}}},
        {"zrank_limit_accepted",
         {{kRank2, {"kv_zrank(client, key, strlen(key), memkey[0], strlen(memkey[0]), &i, ZSET_WITH_LIMIT | ZSET_REVERSE) == KV_INVALID_PARAMETER",
                    "i == 0"}}}},
        {"zrank_rank_unwritten", {{kRank2, rep(10, {"i == 0"})}}},
        {"zrank_value_unwritten", {{kRank2, rep(6, {"val_len == 0", "val == 0"})}}},
        // ---- the injector's own release check ----
        {"leak_one", {}, {}, "fault_injector: 1 buffers never released\n"},
    };
    return f;
}

std::string summary_line(int passed, int failed) {
    return std::string(31, '=') + " ZSET: PASSED = " + std::to_string(passed) +
           ", FAILED = " + std::to_string(failed) + " " + std::string(41, '=');
}

class ZsetFault : public testing::TestWithParam<Fault> {};

TEST_P(ZsetFault, FailsExactlyItsChecks) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const Fault& fault = GetParam();
    std::map<std::string, Lines> expected;
    for (const auto& [title, lines] : fault.failing) {
        ASSERT_EQ(std::count(kTitles.begin(), kTitles.end(), title), 1) << "no case " << title;
        ASSERT_TRUE(expected.emplace(title, lines).second) << "twice: " << title;
    }

    RedisServer server(kZsetPort);  // fresh: the time-to-live keys must not exist yet
    ZsetRunOptions options;
    options.env = injector_env(fault.name);
    options.timeout_s = 60;
    const ZsetRun run = run_zset(options);

    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.signal, 0);
    EXPECT_EQ(run.err, fault.err);
    const Transcript t = parse_transcript(run.out);
    EXPECT_TRUE(t.well_formed);
    EXPECT_EQ(t.preamble_failures, fault.outside);
    ASSERT_EQ(t.cases.size(), kTitles.size()) << run.out;
    for (size_t k = 0; k < kTitles.size(); ++k) {
        const CaseResult& c = t.cases[k];
        EXPECT_EQ(c.title, kTitles[k]);
        const auto it = expected.find(c.title);
        if (it == expected.end()) {
            EXPECT_TRUE(c.passed) << c.title;
            EXPECT_EQ(c.failed_conditions, Lines{}) << c.title;
        } else {
            EXPECT_FALSE(c.passed) << c.title;
            EXPECT_EQ(c.failed_conditions, it->second) << c.title;
        }
    }
    const int failed = static_cast<int>(expected.size());
    EXPECT_EQ(t.summary, summary_line(static_cast<int>(kTitles.size()) - failed, failed));
}

INSTANTIATE_TEST_SUITE_P(Faults, ZsetFault, testing::ValuesIn(faults()),
                         [](const testing::TestParamInfo<Fault>& info) {
                             return info.param.name;
                         });

}  // namespace
}  // namespace kelvane_test
