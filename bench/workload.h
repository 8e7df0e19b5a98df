// workload.h -- one row of the comparison: a library operation and the raw
// hiredis commands that do the same native work, each side on its own keys
// holding the same shape of data.
//
// The library keeps kelvane key K in the server keys kv{K} (sorted set) and
// kv{K}:v (member -> value hash). A workload's library key is "L:<tag>"; its
// raw side uses kv{R:<tag>} and kv{R:<tag>}:v, the same layout under a name
// of the same length.
#ifndef KELVANE_BENCH_WORKLOAD_H
#define KELVANE_BENCH_WORKLOAD_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "call_result.h"
#include "kelvane.h"
#include "raw_connection.h"

namespace kelvane_bench {

enum class Side { lib, raw };

// The handles both sides work through.
struct Sides {
    kv_client* client;
    kv_mm* mm;
    RawConnection& raw;    // the raw side's own connection
    RawConnection& admin;  // fills, refills, statistics and dumps; never timed
};

struct WorkloadKeys {
    std::string lib;                   // the kelvane key, "L:zadd"
    std::string lib_main, lib_values;  // where the library keeps it
    std::string raw_main, raw_values;  // the raw side's keys
};

class Workload {
public:
    // speed_target: the lowest acceptable ratio of library to raw calls per
    // second; server_target: the most server time per call, as a multiple of
    // raw's.
    Workload(std::string name, const std::string& tag, double speed_target,
             double server_target = 2.0);
    virtual ~Workload() = default;
    Workload(const Workload&) = delete;
    Workload& operator=(const Workload&) = delete;

    const std::string& name() const { return name_; }
    const WorkloadKeys& keys() const { return keys_; }
    double speed_target() const { return speed_target_; }
    double server_target() const { return server_target_; }
    // Range reads report the peak heap of one call; the largest one has a
    // memory target.
    virtual bool reports_peak() const { return false; }
    virtual bool has_memory_target() const { return false; }
    // Calls per side in the equality check; writes also compare the keys'
    // end states, since their replies say little.
    virtual int check_calls() const { return 20; }
    virtual bool compares_end_state() const { return false; }

    // Puts both sides' keys into the starting state (untimed).
    virtual void prepare(Sides& sides) = 0;
    // Untimed work before call i, done the same way for both sides.
    virtual void before_call(Sides& sides, Side side, std::uint64_t i);
    // Call i on one side. With `out` it also records what came back. Returns
    // "" or what went wrong; the timed path stays free of allocations of its
    // own so that the counts are the side's alone.
    virtual std::string call(Sides& sides, Side side, std::uint64_t i, CallResult* out) = 0;

private:
    std::string name_;
    WorkloadKeys keys_;
    double speed_target_;
    double server_target_;
};

// The rows, in the order the table shows them.
std::vector<std::unique_ptr<Workload>> write_workloads();       // workloads_writes.cpp
std::vector<std::unique_ptr<Workload>> point_read_workloads();  // workloads_reads.cpp
std::vector<std::unique_ptr<Workload>> range_workloads();       // workloads_ranges.cpp
std::vector<std::unique_ptr<Workload>> removal_workloads();     // workloads_removal.cpp

// A raw reply that is an error, or nothing, as the call's failure text.
std::string reply_failure(const redisReply* reply, const char* command);

// A library status in words, for results and error messages.
std::string status_text(int32_t status);

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_WORKLOAD_H
