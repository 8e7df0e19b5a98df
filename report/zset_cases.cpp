// zset_cases.cpp -- the titles of zset's cases, suite by suite in run order. The eight writing suites end with the
// same two time-to-live cases, named after their suite.
#include "zset_cases.h"

namespace zset_report {
namespace {

struct Suite {
    const char* name;
    std::vector<std::string> titles;
    bool ends_with_ttl_cases;
};

std::vector<ExpectedCase> build() {
    const std::vector<Suite> suites = {
        {"ZADD", {"ZADD zset 10 foo - add a new value to zset", "ZADD zset 5 foo - add a duplicate value to zset"},
         true},
        {"ZMADD", {"ZMADD - add multiple values to zset", "ZMADD - add a duplicate values to zset"}, true},
        {"ZADDVAL", {"ZADDVAL - <member, value> sorted sets", "ZADDVAL - add a duplicate value to zset"}, true},
        {"ZMADDVAL", {"ZMADDVAL - add multiple keys and values to zset", "ZMADDVAL - add a duplicate keys to zset"},
         true},
        {"ZADDVALMAX", {"ZADDVALMAX - <member, value> sorted sets", "ZADDVALMAX - add a duplicate value to zset"},
         true},
        {"ZADDMAXINC",
         {"ZADDMAXINC - integer sorted sets", "ZADDMAXINC - integer value is already present in zset"}, true},
        {"ZADDDIS",
         {"ZADDDIS - check (score - max) > drift", "ZADDDIS - check (score - max) < drift",
          "ZADDDIS - check duplicate key"},
         true},
        {"ZSCORE",
         {"ZSCORE - zset and memkey found", "ZSCORE - no zset found", "ZSCORE - zset exists BUT memkey is not found"},
         false},
        {"ZRANGE",
         {"ZADD zset i foo_i - add 5 new values to zset", "ZRANGE zset 0 -1", "ZRANGE zset 0 -1 withscores",
          "ZRANGE zset 0 -1 withvals", "ZRANGE zset 0 -1 withscores withvals",
          "ZRANGE zset 0 -1 withscores withvals [added suffix]", "ZREVRANGE zset 0 -1 withscores withvals",
          "ZRANGE zset 0 -1 withscores withvals - no result"},
         false},
        {"ZREM", {"ZREM zset foo - foo exists", "ZREM zset foo - foo doesn't exist"}, false},
        {"ZMREM", {"ZMREM - multiple values", "ZMREM - not found"}, false},
        {"ZRANGEBYSCORE",
         {"ZADD zset = {<1 - foo>, <1 - bar>, <1.5 - aaa>, <2 - bbb>, <3 - ccc>}", "ZRANGEBYSCORE zset 1 2",
          "ZRANGEBYSCORE zset 1 2 withscores", "ZRANGEBYSCORE zset 1 2 limit 2 2",
          "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores", "ZRANGEBYSCORE zset 1 2 withvals",
          "ZRANGEBYSCORE zset 1 2 withscores withvals", "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals",
          "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals - with suffix",
          "ZRANGEBYSCORE zset 1 2 limit 2 2 withscores withvals - no result"},
         false},
        {"ZREMRANGEBYSCORE",
         {"ZADD zset = {<1 - foo>, <1 - bar>, <1 - aaa>, <2 - bbb>, <3 - ccc>}", "ZREMRANGEBYSCORE zset 1 2"}, false},
        {"ZCARD", {"ZCARD - sorted sets", "ZCARD - on empty or non sorted sets"}, false},
        {"ZCOUNT", {"ZCOUNT - sorted sets", "ZCOUNT - on empty or non sorted sets"}, false},
        {"ZINCRBY", {"ZINCRBY - sorted sets", "ZINCRBY - on empty or non sorted sets"}, true},
        {"ZRANK", {"ZRANK - sorted sets", "ZRANK - on empty or non sorted sets"}, false},
        {"ZREMRANGEBYRANK", {"ZREMRANGEBYRANK - sorted sets", "ZREMRANGEBYRANK - on empty or non sorted sets"},
         false},
    };
    std::vector<ExpectedCase> cases;
    for (const Suite& s : suites) {
        std::vector<std::string> titles = s.titles;
        if (s.ends_with_ttl_cases) {
            titles.push_back(std::string(s.name) + " - with TTL without commit");
            titles.push_back(std::string(s.name) + " - with TTL and commit");
        }
        for (size_t k = 0; k < titles.size(); ++k) {
            cases.push_back(ExpectedCase{s.name, static_cast<int>(k + 1), titles[k]});
        }
    }
    return cases;
}

}  // namespace

const std::vector<ExpectedCase>& zset_cases() {
    static const std::vector<ExpectedCase> cases = build();
    return cases;
}

}  // namespace zset_report
