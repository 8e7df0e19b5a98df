// bench_operations.cpp -- what one call of the library costs: latency of the
// common operations over loopback (each one round trip), the cost of range
// reads by result size, and the buffers a range read hands out.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kelvane.h"
#include "redis_server.h"

namespace {

// One server and one client for the whole run.
struct Bench {
    kelvane_test::RedisServer server;
    kv_mm* mm = kv_mm_create(0, 0, 0, 0);
    kv_client* client = kv_client_create(1, 2, mm, 2);
    Bench() { kv_server_add(client, "127.0.0.1", static_cast<uint32_t>(server.port()), nullptr); }
    ~Bench() {
        kv_client_destroy(client);
        kv_mm_destroy(mm);
    }
};

Bench& bench() {
    static Bench b;
    return b;
}

void fill(const char* key, int n, bool with_values) {
    kv_del(bench().client, key, std::strlen(key));
    std::vector<std::string> names(static_cast<size_t>(n));
    std::vector<const char*> members, values;
    std::vector<size_t> lens, value_lens;
    std::vector<double> scores;
    for (int i = 0; i < n; ++i) {
        names[static_cast<size_t>(i)] = "member" + std::to_string(i);
        members.push_back(names[static_cast<size_t>(i)].c_str());
        lens.push_back(names[static_cast<size_t>(i)].size());
        values.push_back("value-bytes");
        value_lens.push_back(11);
        scores.push_back(i * 0.5);
    }
    if (with_values) {
        kv_zmaddval(bench().client, key, std::strlen(key), scores.data(), members.data(),
                    static_cast<uint32_t>(n), lens.data(), values.data(), value_lens.data(), 0);
    } else {
        kv_zmadd(bench().client, key, std::strlen(key), scores.data(), members.data(),
                 static_cast<uint32_t>(n), lens.data(), 0);
    }
}

void BM_zadd(benchmark::State& state) {
    Bench& b = bench();
    kv_del(b.client, "bench:zadd", 10);
    double score = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(kv_zadd(b.client, "bench:zadd", 10, score, "m", 1, 0));
        score += 1;
    }
}
BENCHMARK(BM_zadd);

void BM_zaddval_with_ttl(benchmark::State& state) {
    Bench& b = bench();
    kv_del(b.client, "bench:zaddval", 13);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            kv_zaddval(b.client, "bench:zaddval", 13, 1.5, "m", 1, "value", 5, COMMIT_TTL(600)));
    }
}
BENCHMARK(BM_zaddval_with_ttl);

void BM_zscore(benchmark::State& state) {
    Bench& b = bench();
    fill("bench:zscore", 100, true);
    for (auto _ : state) {
        double score;
        char* value;
        size_t len;
        benchmark::DoNotOptimize(
            kv_zscore(b.client, "bench:zscore", 12, "member7", 7, &score, &value, &len));
        b.mm->release(value);
    }
}
BENCHMARK(BM_zscore);

void BM_zincrby(benchmark::State& state) {
    Bench& b = bench();
    kv_del(b.client, "bench:zincrby", 13);
    for (auto _ : state) {
        double score;
        benchmark::DoNotOptimize(kv_zincrby(b.client, "bench:zincrby", 13, "m", 1, 0.25, &score, 0));
    }
}
BENCHMARK(BM_zincrby);

// Range reads of n members with scores and values: the cost grows with the
// result, one round trip whatever its size; with a value on every member
// 2n + 5 buffers change hands (the "buffers" counter).
void BM_zrange_with_scores_and_values(benchmark::State& state) {
    Bench& b = bench();
    const int n = static_cast<int>(state.range(0));
    fill("bench:zrange", n, true);
    size_t peak_buffers = 0;
    for (auto _ : state) {
        void** members;
        size_t count;
        size_t* lens;
        double* scores;
        void** values;
        size_t* value_lens;
        kv_zrange(b.client, "bench:zrange", 12, 0, -1, &members, &count, &lens,
                  ZSET_WITH_SCORES | ZSET_WITH_VALUES, &scores, &values, &value_lens);
        peak_buffers = b.mm->live_count(b.mm);
        for (size_t i = 0; i < count; ++i) {
            b.mm->release(members[i]);
            b.mm->release(values[i]);
        }
        b.mm->release(members);
        b.mm->release(lens);
        b.mm->release(scores);
        b.mm->release(values);
        b.mm->release(value_lens);
    }
    state.counters["buffers"] = static_cast<double>(peak_buffers);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_zrange_with_scores_and_values)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000);

void BM_zmaddval_batch(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) fill("bench:batch", n, true);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_zmaddval_batch)->Arg(100)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
