// data_set.h -- the members, scores and values the workloads use, and
// filling them in on either side. The library side is filled through the
// library itself, the raw side through native commands, so an equality check
// that passes also shows that both hold the same data.
#ifndef KELVANE_BENCH_DATA_SET_H
#define KELVANE_BENCH_DATA_SET_H

#include <cstdint>
#include <string>
#include <vector>

#include "workload.h"

namespace kelvane_bench {

std::string member_name(std::uint64_t i);  // "member-0000042"
std::string value_text(std::uint64_t i);   // about 24 bytes
// Thirds need all 17 digits to travel exactly, so they catch any loss of
// precision on the way.
inline double score_of(std::uint64_t i) { return static_cast<double>(i) / 3.0; }

struct DataSet {
    std::vector<std::string> members;
    std::vector<double> scores;
    std::vector<std::string> values;  // empty: members without values
};
DataSet make_data_set(std::uint64_t count, bool with_values);

// Deletes both sides' keys of a workload.
void clear_both(Sides& sides, const WorkloadKeys& keys);
// Adds the data set to the library key through kv_zmadd / kv_zmaddval.
void fill_lib(Sides& sides, const std::string& key, const DataSet& data);
// Adds the data set to a sorted set and its values hash with native ZADD
// and HSET on the given connection.
void fill_native(RawConnection& conn, const std::string& main_key, const std::string& values_key,
                 const DataSet& data);

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_DATA_SET_H
