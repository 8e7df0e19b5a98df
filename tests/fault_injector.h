// fault_injector.h -- what the zset transcript tests share: zset's suites and summary line, the environment that
// loads the fault injector into zset, and the guard for the fixed port that zset always talks to.
#ifndef KELVANE_TESTS_FAULT_INJECTOR_H
#define KELVANE_TESTS_FAULT_INJECTOR_H

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "private_network.h"
#include "redis_server.h"

namespace kelvane_test {

constexpr int kZsetPort = 12345;
constexpr int kCases = 68;

// zset's 18 suites in run order with their numbers of cases. The eight writing suites (ZADD to ZADDDIS, ZINCRBY)
// end with two time-to-live cases, without and with commit.
inline const std::vector<std::pair<std::string, int>> kSuites = {
    {"ZADD", 4},  {"ZMADD", 4}, {"ZADDVAL", 4},        {"ZMADDVAL", 4},         {"ZADDVALMAX", 4}, {"ZADDMAXINC", 4},
    {"ZADDDIS", 5}, {"ZSCORE", 3}, {"ZRANGE", 8},      {"ZREM", 2},             {"ZMREM", 2},      {"ZRANGEBYSCORE", 10},
    {"ZREMRANGEBYSCORE", 2}, {"ZCARD", 2}, {"ZCOUNT", 2}, {"ZINCRBY", 4},       {"ZRANK", 2},      {"ZREMRANGEBYRANK", 2}};

// The 68 cases named by suite and position, "ZADD 1" to "ZREMRANGEBYRANK 2".
inline std::vector<std::string> case_labels() {
    std::vector<std::string> labels;
    for (const auto& [suite, count] : kSuites) {
        for (int n = 1; n <= count; ++n) labels.push_back(suite + " " + std::to_string(n));
    }
    return labels;
}

inline std::string summary_line(int passed, int failed) {
    return std::string(31, '=') + " ZSET: PASSED = " + std::to_string(passed) +
           ", FAILED = " + std::to_string(failed) + " " + std::string(41, '=');
}

// The environment that runs zset over the injector with the given fault ("" for none: only the release check). In
// a sanitizer build its runtime must come first in the preload list: the build passes its path in
// KELVANE_PRELOAD_FIRST (else "").
inline std::vector<std::string> injector_env(const std::string& fault) {
    std::string preload = KELVANE_PRELOAD_FIRST;
    if (!preload.empty()) preload += ":";
    return {"LD_PRELOAD=" + preload + KELVANE_FAULT_INJECTOR, "KELVANE_FAULT=" + fault};
}

}  // namespace kelvane_test

// Outside a private network (no privilege to make one) the zset tests share the machine's port 12345 and run one
// at a time (ctest RESOURCE_LOCK); one that finds the port taken by someone else skips.
#define SKIP_UNLESS_ZSET_PORT_FREE()                                                     \
    if (!kelvane_test::in_private_network() &&                                           \
        kelvane_test::RedisServer::listening(kelvane_test::kZsetPort))                   \
    GTEST_SKIP() << "port 12345 is taken and this process has no private network: "      \
                    "zset cannot get a server of its own"

#endif  // KELVANE_TESTS_FAULT_INJECTOR_H
