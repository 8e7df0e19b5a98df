// test_zset.cpp -- zset's transcript. Against a library with one fault at a time (fault_injector.cpp,
// docs/faults.md): for each fault zset runs against a fresh private server, and its transcript must name exactly
// the checks such a library fails -- those cases FAILED with exactly these condition texts in this order, every
// other case PASSED, all 68 verdicts and the summary with the right counts, exit status 0, and nothing on standard
// error but what the fault puts there. (Case titles are zset-report's to check: it knows them all.) And whole runs
// as users make them: against a fresh server, with no server at all, with the server killed or frozen in the
// middle of the run, and under valgrind.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <ostream>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fault_injector.h"
#include "redis_server.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

// A complete run: exit 0, nothing on standard error but `err` (where the injector reports buffers never
// released), 68 cases each with its verdict, and a summary whose counts are the verdicts'. Gives the number passed.
int expect_complete(const ZsetRun& run, Transcript* out = nullptr, const std::string& err = "") {
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.err, err);
    const Transcript t = parse_transcript(run.out);
    EXPECT_TRUE(t.well_formed) << run.out;
    EXPECT_EQ(t.cases.size(), static_cast<size_t>(kCases)) << run.out;
    const int passed = static_cast<int>(std::count_if(t.cases.begin(), t.cases.end(), [](auto& c) { return c.passed; }));
    EXPECT_EQ(t.summary, summary_line(passed, static_cast<int>(t.cases.size()) - passed));
    for (const auto& c : t.cases) EXPECT_EQ(c.passed, c.failed_conditions.empty()) << c.title;
    if (out) *out = t;
    return passed;
}

ZsetRun run_with(const std::string& fault, int timeout_s = 60) {
    ZsetRunOptions options;
    options.env = injector_env(fault);
    options.timeout_s = timeout_s;
    return run_zset(options);
}

// ---- One fault at a time ----------------------------------------------------

using Lines = std::vector<std::string>;

// A fault and the cases it must fail, each with its failure lines' condition texts in order.
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

// The given cases and the eight ZRANGEBYSCORE cases with a result, each failing its length check alone: four
// entries expected, two with the limit (4, 5, 8 and 9).
std::vector<std::pair<std::string, Lines>> with_lengths(std::vector<std::pair<std::string, Lines>> cases) {
    for (int k = 2; k <= 9; ++k) {
        const bool limited = k == 4 || k == 5 || k >= 8;
        cases.push_back({"ZRANGEBYSCORE " + std::to_string(k), {limited ? "q_len == 2" : "q_len == 4"}});
    }
    return cases;
}

// Of the 16 time-to-live cases (the last two of the eight writing suites), those without and those with commit
// whose lines are given.
std::vector<std::pair<std::string, Lines>> ttl_cases(const Lines* without, const Lines* with) {
    std::vector<std::pair<std::string, Lines>> out;
    for (const auto& [suite, count] : kSuites) {
        if (suite.find("ADD") == std::string::npos && suite != "ZINCRBY") continue;  // not a writing suite
        if (without) out.emplace_back(suite + " " + std::to_string(count - 1), *without);
        if (with) out.emplace_back(suite + " " + std::to_string(count), *with);
    }
    return out;
}

// Condition texts of the range walks. ZRANGE:
const std::string T = "temp != NULL";
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

const std::string kSadd = R"(kv_sadd(client, "myset", strlen("myset"), "val", strlen("val"), 0) == KV_SUCCESS)";
const std::string kZscoreM =
    "kv_zscore(client, key, strlen(key), memkeys[i], memkeys_len[i], &q_score, &q_memval, &q_memval_len) == KV_SUCCESS";

std::vector<Fault> faults() {
    const Lines t7200 = {"ttl == 7200"}, t8000 = {"ttl == 8000"}, both_plain = {"ttl == 7200", "ttl == 7200"},
                both_commit = {"ttl == 7200", "ttl == 8000"};
    return {
        // ---- set-up and keys of any kind ----
        {"server_add_status", {}, {"kv_server_add(client, HOST, PORT, NULL) == KV_SUCCESS"}},
        {"del_keeps_plain_sets",
         {{"ZCOUNT 2", {kSadd}}, {"ZINCRBY 2", {kSadd}}, {"ZRANK 2", {kSadd}}, {"ZREMRANGEBYRANK 2", {kSadd}}}},
        {"sadd_status", {{"ZCARD 2", {kSadd}}, {"ZCOUNT 2", {kSadd}}, {"ZINCRBY 2", {kSadd}},
                         {"ZRANK 2", {kSadd}}, {"ZREMRANGEBYRANK 2", {kSadd}}}},
        {"get_ttl_off_by_one", ttl_cases(&both_plain, &both_commit)},
        {"commit_ttl_ignored", ttl_cases(nullptr, &t8000)},
        {"plain_ttl_applied", ttl_cases(&t7200, nullptr)},
        // ---- insertions ----
        {"zadd_dup_success",
         {{"ZADD 2", {"kv_zadd(client, key, strlen(key), 5, val, strlen(val), 0) == KV_ALREADY_EXISTS"}}}},
        {"zmadd_drops_last",
         {{"ZMADD 1", {kZscoreM, "q_score == score[i]"}},
          {"ZMADD 2", {"q_score == score[i]", kZscoreM, "q_score == score[i]"}}}},
        {"zaddval_value_short",
         {{"ZADDVAL 1", {R"(strncmp(memval, "myval", strlen("myval")) == 0)"}},
          {"ZADDVAL 2", {R"(strncmp(memval, "mynewval", strlen("mynewval")) == 0)"}},
          {"ZSCORE 1", {R"(strncmp(memval, "bar", strlen("bar")) == 0)"}},
          {"ZRANGE 4", {V, V, V}}, {"ZRANGE 5", {V, V, V}}, {"ZRANGE 6", rep(3, {VPre, VSuf})},
          {"ZRANGE 7", {RV, RV, RV}}, {"ZRANGEBYSCORE 6", {BV, BV}}, {"ZRANGEBYSCORE 7", {BV, BV}},
          {"ZRANGEBYSCORE 8", {BV}}, {"ZRANGEBYSCORE 9", {BVPre, BVSuf}},
          {"ZRANK 1", {"val_len == strlen(memval[0])", "val_len == strlen(memval[2])",
                       "val_len == strlen(memval[2])", "val_len == strlen(memval[1])"}}}},
        {"zmaddval_dup_success",
         {{"ZMADDVAL 2", {"kv_zmaddval(client, key, strlen(key), score, (const char*const*)memkeys, 2, memkeys_len, (const char*const*)memvals, memvals_len, 0) == KV_ALREADY_EXISTS"}}}},
        {"zaddvalmax_ignores_max", {{"ZADDVALMAX 1", {"q_score == 12"}}, {"ZADDVALMAX 2", {"q_score == 22"}}}},
        {"zaddmaxinc_dup_success",
         {{"ZADDMAXINC 2", {"kv_zaddmaxinc(client, key, strlen(key), 3, 0) == KV_ALREADY_EXISTS"}}}},
        {"zadddis_wrong_name", {{"ZADDDIS 2", {R"(strcmp("bar", memval) == 0)"}}}},
        {"zadddis_spurious_name",
         {{"ZADDDIS 1", {"memval == NULL", "memval == NULL"}}, {"ZADDDIS 3", {"memval == NULL"}}}},
        // ---- kv_zscore ----
        {"zscore_noset_as_notfound",
         {{"ZADDDIS 1", {R"(kv_zscore(client, key, strlen(key), "foo", strlen("foo"), &q_score, &memval, &memval_len) == KV_NO_SET_KEY)"}},
          {"ZSCORE 3", {R"(kv_zscore(client, key, strlen(key), "nokey", strlen("nokey"), &q_score, &memval, &memval_len) == KV_NO_SET_KEY)"}}}},
        {"zscore_score_ulp",
         {{"ZADD 1", {"q_score == score"}}, {"ZADD 2", {"q_score == 5"}},
          {"ZMADD 1", rep(3, {"q_score == score[i]"})}, {"ZMADD 2", rep(3, {"q_score == score[i]"})},
          {"ZADDVAL 1", {"q_score == 10"}}, {"ZADDVAL 2", {"q_score == 5"}},
          {"ZMADDVAL 1", rep(3, {"q_score == score[i]"})}, {"ZMADDVAL 2", rep(3, {"q_score == score[i]"})},
          {"ZADDVALMAX 1", {"q_score == 12"}}, {"ZADDVALMAX 2", {"q_score == 22"}},
          {"ZADDMAXINC 1", {"q_score == 4", "q_score == 12"}}, {"ZADDMAXINC 2", {"q_score == 15"}},
          {"ZADDDIS 1", {"q_score == 4", "q_score == 7"}}, {"ZADDDIS 2", {"q_score == 5"}},
          {"ZADDDIS 3", {"q_score == 10"}}, {"ZSCORE 1", {"q_score == 10"}}, {"ZINCRBY 2", {"q_score == 1.8"}}}},
        {"zscore_score_unwritten", {{"ZSCORE 2", {"q_score == 0"}}, {"ZSCORE 3", {"q_score == 0"}}}},
        // ---- range reads: ZRANGE 2-8 are plain, withscores, withvals, withscores withvals, suffix, ZREVRANGE,
        // no result; ZRANGEBYSCORE 2-10 plain, withscores, limit, limit withscores, withvals, withscores withvals,
        // limit withscores withvals, suffix, no result ----
        {"range_absent_key_success",
         {{"ZRANGE 8", {R"(kv_zrange(client, "no_key", strlen("no_key"), 0, -1, &q_mem, &q_len, &q_ind_len, ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND)",
                        R"(kv_zrange_whole(client, "no_key", strlen("no_key"), 0, -1, &q_mem, &q_len, &q_ind_len, "suffix", strlen("suffix"), ZSET_WITH_SCORES | ZSET_WITH_VALUES, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND)"}},
          {"ZRANGEBYSCORE 10", {R"(kv_zrangebyscore(client, "no_key", strlen("no_key"), 1, 2, &q_mem, &q_len, &q_ind_len, ZSET_WITH_LIMIT | ZSET_WITH_SCORES | ZSET_WITH_VALUES, 2, 2, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND)",
                                R"(kv_zrangebyscore_whole(client, "no_key", strlen("no_key"), 1, 2, &q_mem, &q_len, &q_ind_len, "suffix", strlen("suffix") + 1, ZSET_WITH_LIMIT | ZSET_WITH_SCORES | ZSET_WITH_VALUES, 2, 2, &q_score, &q_val, &q_indv_len) == KV_NOTFOUND)"}}}},
        // "bar" and "foo" share score 1: swapped, each position holds the other's member and value.
        {"range_tie_order",
         {{"ZRANGEBYSCORE 2", {M, M}}, {"ZRANGEBYSCORE 3", {M, M}}, {"ZRANGEBYSCORE 6", {M, N, M, T}},
          {"ZRANGEBYSCORE 7", {M, N, M, T}}}},
        {"range_reverse_ignored", {{"ZRANGE 7", {RK, RS, RV, RK, RS, RK, RS, RK, RS, RV}}}},
        // Without the limit "bar" (no value) and "foo" (a value) come back where "aaa" and "bbb" belong.
        {"range_limit_ignored",
         {{"ZRANGEBYSCORE 4", {"q_len == 2", M, M}}, {"ZRANGEBYSCORE 5", {"q_len == 2", M, S, M, S}},
          {"ZRANGEBYSCORE 8", {"q_len == 2", M, S, T, M, S, N}},
          {"ZRANGEBYSCORE 9", {"q_len == 2", MPre, S, T, MPre, S, N}}}},
        {"range_suffix_dropped",
         {{"ZRANGE 6", {KSuf, VSuf, KSuf, KSuf, VSuf, KSuf, KSuf, VSuf}}, {"ZRANGEBYSCORE 9", {MSuf, BVSuf, MSuf}}}},
        // One more entry: the count checks fail; the reversed walk, indexed by q_len, is off by one everywhere.
        {"range_extra_item",
         with_lengths({{"ZRANGE 2", {"q_len <= 5"}}, {"ZRANGE 3", {"q_len <= 5"}}, {"ZRANGE 4", {"q_len <= 5"}},
                       {"ZRANGE 5", {"q_len <= 5"}}, {"ZRANGE 6", {"q_len <= 5"}},
                       {"ZRANGE 7", {"q_len <= 5", RK, RS, N, RK, RS, T, RK, RS, N, RK, RS, T, RK, RS, N}}})},
        // One entry short: the ZRANGE walks accept a shorter result, the reversed one and the counts do not.
        {"range_missing_item", with_lengths({{"ZRANGE 7", {RK, RS, N, RK, RS, T, RK, RS, N, RK, RS, T}}})},
        {"range_score_ulp",
         {{"ZRANGE 3", rep(5, {Si})}, {"ZRANGE 5", rep(5, {Si})}, {"ZRANGE 6", rep(5, {Si})},
          {"ZRANGE 7", rep(5, {RS})}, {"ZRANGEBYSCORE 3", rep(4, {S})}, {"ZRANGEBYSCORE 5", rep(2, {S})},
          {"ZRANGEBYSCORE 7", rep(4, {S})}, {"ZRANGEBYSCORE 8", rep(2, {S})}, {"ZRANGEBYSCORE 9", rep(2, {S})}}},
        {"range_spurious_value",
         {{"ZRANGE 4", {N, N}}, {"ZRANGE 5", {N, N}}, {"ZRANGE 6", {N, N}}, {"ZRANGE 7", {N, N}},
          {"ZRANGEBYSCORE 6", {N, N}}, {"ZRANGEBYSCORE 7", {N, N}}, {"ZRANGEBYSCORE 8", {N}},
          {"ZRANGEBYSCORE 9", {N}}}},
        {"voidtostring_null",
         {{"ZRANGE 2", rep(5, {T})}, {"ZRANGE 3", rep(5, {T})}, {"ZRANGE 4", rep(8, {T})},
          {"ZRANGE 5", rep(8, {T})}, {"ZRANGE 6", rep(8, {T})}, {"ZRANGE 7", rep(8, {T})},
          {"ZRANGEBYSCORE 2", rep(4, {M})}, {"ZRANGEBYSCORE 3", rep(4, {M})},
          {"ZRANGEBYSCORE 4", rep(2, {M})}, {"ZRANGEBYSCORE 5", rep(2, {M})},
          {"ZRANGEBYSCORE 6", {M, M, T, M, T, M}}, {"ZRANGEBYSCORE 7", {M, M, T, M, T, M}},
          {"ZRANGEBYSCORE 8", {M, T, M}}, {"ZRANGEBYSCORE 9", {MPre, MSuf, T, MPre, MSuf}}}},
        // ---- removals ----
        {"zrem_notfound_success",
         {{"ZREM 2", {"kv_zrem(client, key, strlen(key), val, strlen(val)) == KV_NOTFOUND"}}}},
        {"zmrem_notfound_success",
         {{"ZMREM 2",
           {"kv_zmrem(client, key, strlen(key), (const char*const*)memkeys+2, 1, memkeys_len+2, &deleted) == KV_NOTFOUND",
            "kv_zmrem(client, key, strlen(key), (const char*const*)memkeys, 3, memkeys_len, &deleted) == KV_NOTFOUND"}}}},
        {"zremrangebyscore_max_exclusive", {{"ZREMRANGEBYSCORE 2", {"count == 4"}}}},
        {"zremrangebyrank_stop_exclusive", {{"ZREMRANGEBYRANK 1", {"i == 1", "i == 2", "i == 3"}}}},
        // ---- counts, increments, ranks ----
        {"zcard_count_unwritten", {{"ZCARD 2", {"i == 0"}}}},
        {"zcount_max_exclusive", {{"ZCOUNT 1", {"i == 3"}}}},
        {"zincrby_wrong_kind_success",
         {{"ZINCRBY 2", {R"(kv_zincrby(client, "myset", strlen("myset"), memkey[2], strlen(memkey[2]), 2, &q_score, 0) == KV_WRONG_REPLY)"}}}},
        {"zincrby_score_ulp",
         {{"ZINCRBY 1", {"q_score == (memscore[0] + 1.8)", "q_score == (memscore[0] + 1.8 - 4)",
                         "q_score == memscore[2]", "q_score == (memscore[1] + 0.4)"}},
          {"ZINCRBY 2", {"q_score == 1.8"}}}},
        {"zrank_noset_as_notfound",
         {{"ZRANK 2", {R"(kv_zrank(client, key, strlen(key), "nokey", strlen("nokey"), &i, ZSET_DEFAULT) == KV_NO_SET_KEY)",
                       R"(kv_zrank(client, key, strlen(key), "nokey", strlen("nokey"), &i, ZSET_WITH_VALUES, &val, &val_len) == KV_NO_SET_KEY)",
                       R"(kv_zrank(client, key, strlen(key), "nokey", strlen("nokey"), &i, ZSET_REVERSE | ZSET_WITH_VALUES, &val, &val_len) == KV_NO_SET_KEY)"}}}},
        {"zrank_reverse_ignored", {{"ZRANK 1", {"i == 0", "i == 2", "i == 0", "i == 2"}}}},
        {"zrank_limit_accepted",
         {{"ZRANK 2", {"kv_zrank(client, key, strlen(key), memkey[0], strlen(memkey[0]), &i, ZSET_WITH_LIMIT | ZSET_REVERSE) == KV_INVALID_PARAMETER",
                       "i == 0"}}}},
        {"zrank_rank_unwritten", {{"ZRANK 2", rep(10, {"i == 0"})}}},
        // ---- the injector's own release check ----
        {"leak_one", {}, {}, "fault_injector: 1 buffers never released\n"},
    };
}

class ZsetFault : public testing::TestWithParam<Fault> {};

TEST_P(ZsetFault, FailsExactlyItsChecks) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const Fault& fault = GetParam();
    std::map<std::string, Lines> expected(fault.failing.begin(), fault.failing.end());
    RedisServer server(kZsetPort);  // fresh: the time-to-live keys must not exist yet
    const ZsetRun run = run_with(fault.name);

    Transcript t;
    expect_complete(run, &t, fault.err);  // and so the summary counts the verdicts checked below
    EXPECT_EQ(t.preamble_failures, fault.outside);
    const std::vector<std::string> labels = case_labels();
    ASSERT_EQ(t.cases.size(), labels.size()) << run.out;
    for (size_t k = 0; k < labels.size(); ++k) {
        // A case passed exactly when it has no failure line (expect_complete).
        const auto it = expected.find(labels[k]);
        EXPECT_EQ(t.cases[k].failed_conditions, it != expected.end() ? it->second : Lines{}) << labels[k];
        if (it != expected.end()) expected.erase(it);
    }
    EXPECT_TRUE(expected.empty()) << "no case " << expected.begin()->first;
}

INSTANTIATE_TEST_SUITE_P(Faults, ZsetFault, testing::ValuesIn(faults()),
                         [](const testing::TestParamInfo<Fault>& info) { return info.param.name; });

// ---- Whole runs --------------------------------------------------------------

TEST(ZsetRun, CleanRunPassesEveryCaseAndReleasesEverything) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    const ZsetRun run = run_with("");  // no fault: only the release check
    Transcript t;
    EXPECT_EQ(expect_complete(run, &t), kCases);
    // Byte for byte: per case the header, "== PASSED ==" and an empty line; then the summary and its newline.
    std::string expected;
    for (const auto& c : t.cases) expected += "== " + c.title + " ==\n== PASSED ==\n\n";
    EXPECT_EQ(run.out, expected + summary_line(kCases, 0) + "\n");

    // Arguments are ignored: the same run with some, on a fresh server (restarted without persistence) and without
    // the injector, gives the same bytes.
    server.stop();
    server.start();
    ZsetRunOptions with_args;
    with_args.wrapper = {"/bin/sh", "-c", "exec \"$0\" --verbose -x 12345 extra"};
    const ZsetRun run2 = run_zset(with_args);
    expect_complete(run2);
    EXPECT_EQ(run2.out, run.out);
}

TEST(ZsetRun, WithoutServerEveryCaseFailsAndTheRunEndsQuickly) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const ZsetRun run = run_with("", 30);  // the error paths release everything too
    Transcript t;
    EXPECT_EQ(expect_complete(run, &t), 0);
    EXPECT_LT(run.seconds, 5.0) << "nothing listens: each call's connection attempts are refused at once";
    EXPECT_TRUE(std::regex_search(run.out, std::regex(R"(^Condition=\[kv_server_add\(client, HOST, PORT, NULL\) == )"
                                                      R"(KV_SUCCESS\] HAS FAILED at zset\.cpp line [1-9][0-9]*\n== )")))
        << run.out;
    // The registration and the ZSCORE set-up are the checks outside any case.
    EXPECT_EQ(t.preamble_failures,
              (std::vector<std::string>{
                  "kv_server_add(client, HOST, PORT, NULL) == KV_SUCCESS",
                  R"(kv_zaddval(client, key, strlen(key), 10, memkey, strlen(memkey), "bar", strlen("bar"), 0) == KV_SUCCESS)"}));
}

TEST(ZsetRun, ServerKilledMidRunStillEndsWithEveryVerdict) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    ZsetRunOptions options;
    // 5 ms more per call stretches the run (about 330 calls) to some seconds, so that the kill lands in its middle.
    options.env = injector_env("slow");
    options.during_after_ms = 150;
    options.during = [&] { server.kill(); };
    options.timeout_s = 60;
    const ZsetRun run = run_zset(options);
    Transcript t;
    expect_complete(run, &t);
    ASSERT_EQ(t.cases.size(), static_cast<size_t>(kCases));
    EXPECT_TRUE(t.cases.front().passed) << "the server went before the run began";
    EXPECT_FALSE(t.cases.back().passed) << "the server never went away";
}

TEST(ZsetRun, FrozenServerCostsEachCallAtMostTheCommandTimeout) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    // zset's client waits 2 s for an answer (kv_client_create(1, 2, mm, 2)): a freeze of F = 5 s makes about F / 2
    // calls give up and lengthens the run by at most F + 2 s. Without the bound the first blocked call would just
    // wait for the thaw and no case would fail.
    constexpr int kFreezeS = 5, kCommandTimeoutS = 2;
    std::thread thawer;
    ZsetRunOptions options;
    options.env = injector_env("slow");
    options.during_after_ms = 300;
    options.during = [&] {
        server.freeze();
        thawer = std::thread([&] {
            std::this_thread::sleep_for(std::chrono::seconds(kFreezeS));
            server.thaw();
        });
    };
    const ZsetRun run = run_zset(options);
    if (thawer.joinable()) thawer.join();

    Transcript t;
    EXPECT_LT(expect_complete(run, &t), kCases) << "no call gave up while the server was frozen";
    // The slow run itself takes a few seconds; 10 s leaves room for a loaded or sanitized build.
    EXPECT_LT(run.seconds, kFreezeS + kCommandTimeoutS + 10.0);
    ASSERT_EQ(t.cases.size(), static_cast<size_t>(kCases));
    // After the thaw the client is back: the last suite passes.
    EXPECT_TRUE(t.cases[kCases - 2].passed && t.cases[kCases - 1].passed);
}

TEST(ZsetRun, ValgrindFindsNoErrorsAndNoLeaks) {
#ifdef KELVANE_SANITIZED_BUILD
    GTEST_SKIP() << "sanitizer build: AddressSanitizer already checks every run";
#endif
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    ZsetRunOptions options;
    options.wrapper = {"valgrind", "--error-exitcode=99", "--leak-check=full",
                       "--errors-for-leak-kinds=definite,indirect", "-q"};
    options.timeout_s = 500;
    EXPECT_EQ(expect_complete(run_zset(options)), kCases);
}

}  // namespace
}  // namespace kelvane_test
