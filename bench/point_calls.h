// point_calls.h -- the point read every thread of kelvane_threads makes, on
// each way: through a kv_client (shared by the threads or a thread's own) or
// through a raw hiredis connection doing the same native work (kv_zscore:
// ZSCORE + HGET pipelined; kv_zrank: ZRANK).
//
// Every answer is checked against the data the set was filled with, so that
// a reply handed to the wrong caller counts as wrong instead of as a fast
// call. The check is a comparison of a few bytes, the same on every way.
#ifndef KELVANE_BENCH_POINT_CALLS_H
#define KELVANE_BENCH_POINT_CALLS_H

#include <cstddef>
#include <memory>
#include <string>

#include "data_set.h"
#include "kelvane.h"

namespace kelvane_bench {

enum class PointOp { zscore, zrank };
const char* op_name(PointOp op);      // "kv_zscore"
const char* native_work(PointOp op);  // "ZSCORE + HGET, pipelined"

// The set every thread reads: the library's key and the raw side's keys in
// the library's layout, both holding `data`.
struct PointSet {
    std::string lib_key;
    std::string raw_main, raw_values;
    DataSet data;
};
PointSet make_point_set(std::size_t members);

enum class Verdict { ok, failed, wrong };

class PointCaller {
public:
    virtual ~PointCaller() = default;
    // Reads member m and checks the answer. Anything but ok says why in
    // `why` (the only path that allocates).
    virtual Verdict call(std::size_t m, std::string& why) = 0;
};

// Reads through `client`, which other callers may share.
std::unique_ptr<PointCaller> library_caller(PointOp op, const PointSet& set, kv_client* client,
                                            kv_mm* mm);
// Reads through a hiredis connection of its own to 127.0.0.1:port, made
// here (throws when it cannot connect) and made again after it breaks.
std::unique_ptr<PointCaller> raw_caller(PointOp op, const PointSet& set, int port);

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_POINT_CALLS_H
