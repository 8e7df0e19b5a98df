// report_fixture.cpp -- running zset-report and zset for the reader's tests.
#include "report_fixture.h"

#include "fault_injector.h"
#include "redis_server.h"
#include "zset_runner.h"

namespace kelvane_test {

ReportRun report_on(const std::string& transcript, const std::vector<std::string>& extra, bool from_stdin) {
    TempDir dir;
    std::vector<std::string> argv = {KELVANE_ZSET_REPORT, "--junit", dir / "report.xml"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    CommandOptions options;
    if (from_stdin) {
        options.input = transcript;
    } else {
        write_file(dir / "transcript", transcript);
        argv.push_back(dir / "transcript");
    }
    ReportRun r;
    r.run = run_command(argv, options);
    try {
        r.xml = read_file(dir / "report.xml");
    } catch (const std::exception&) {
        r.junit.parse_error = "no report written";
        return r;
    }
    r.junit = read_junit(r.xml);
    return r;
}

const std::vector<std::pair<std::string, int>>& zset_suites() {
    static const std::vector<std::pair<std::string, int>> suites = {
        {"ZADD", 4},  {"ZMADD", 4},  {"ZADDVAL", 4},        {"ZMADDVAL", 4},         {"ZADDVALMAX", 4},
        {"ZADDMAXINC", 4}, {"ZADDDIS", 5}, {"ZSCORE", 3},   {"ZRANGE", 8},           {"ZREM", 2},
        {"ZMREM", 2}, {"ZRANGEBYSCORE", 10}, {"ZREMRANGEBYSCORE", 2}, {"ZCARD", 2}, {"ZCOUNT", 2},
        {"ZINCRBY", 4}, {"ZRANK", 2}, {"ZREMRANGEBYRANK", 2}};
    return suites;
}

std::vector<std::string> case_labels() {
    std::vector<std::string> labels;
    for (const auto& [suite, count] : zset_suites()) {
        for (int n = 1; n <= count; ++n) labels.push_back(suite + " " + std::to_string(n));
    }
    return labels;
}

std::vector<RawCase> raw_cases(const std::string& transcript) {
    std::vector<RawCase> cases;
    bool open = false;
    for (const std::string& line : lines_of(transcript)) {
        if (line == "== PASSED ==" || line == "== FAILED ==") {
            if (open) cases.back().passed = line == "== PASSED ==";
            open = false;
        } else if (line.rfind("== ", 0) == 0) {
            cases.push_back(RawCase{line.substr(3, line.size() - 6), {}, false});
            open = true;
        } else if (open && line.rfind("Condition=[", 0) == 0) {
            cases.back().failure_lines.push_back(line);
        }
    }
    return cases;
}

std::string zset_transcript(const std::string& fault) {
    RedisServer server(kZsetPort);
    ZsetRunOptions options;
    options.env = injector_env(fault);
    options.timeout_s = 60;
    const ZsetRun run = run_zset(options);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    return run.out;
}

std::string no_server_transcript() {
    ZsetRunOptions options;
    options.timeout_s = 60;
    return run_zset(options).out;
}

const std::string& clean_transcript() {
    static const std::string transcript = zset_transcript();
    return transcript;
}

}  // namespace kelvane_test
