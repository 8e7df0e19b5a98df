// data_set.cpp -- generating and loading the workloads' data.
#include "data_set.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace kelvane_bench {
namespace {

// Large sets go in slices so that no single command is huge.
constexpr std::uint64_t kSlice = 10000;

}  // namespace

std::string member_name(std::uint64_t i) {
    char text[32];
    std::snprintf(text, sizeof text, "member-%07llu", static_cast<unsigned long long>(i));
    return text;
}

std::string value_text(std::uint64_t i) {
    char text[40];
    std::snprintf(text, sizeof text, "value-%07llu-0123456789", static_cast<unsigned long long>(i));
    return text;
}

DataSet make_data_set(std::uint64_t count, bool with_values) {
    DataSet data;
    for (std::uint64_t i = 0; i < count; ++i) {
        data.members.push_back(member_name(i));
        data.scores.push_back(score_of(i));
        if (with_values) data.values.push_back(value_text(i));
    }
    return data;
}

void clear_both(Sides& sides, const WorkloadKeys& keys) {
    kv_del(sides.client, keys.lib.data(), keys.lib.size());
    sides.admin.command({"DEL", keys.raw_main, keys.raw_values});
}

void fill_lib(Sides& sides, const std::string& key, const DataSet& data) {
    const bool with_values = !data.values.empty();
    for (std::uint64_t first = 0; first < data.members.size(); first += kSlice) {
        const std::uint64_t last = std::min<std::uint64_t>(first + kSlice, data.members.size());
        std::vector<const char*> members, values;
        std::vector<size_t> member_lens, value_lens;
        for (std::uint64_t i = first; i < last; ++i) {
            members.push_back(data.members[i].data());
            member_lens.push_back(data.members[i].size());
            if (with_values) {
                values.push_back(data.values[i].data());
                value_lens.push_back(data.values[i].size());
            }
        }
        const auto count = static_cast<uint32_t>(last - first);
        const int32_t status =
            with_values
                ? kv_zmaddval(sides.client, key.data(), key.size(), &data.scores[first],
                              members.data(), count, member_lens.data(), values.data(),
                              value_lens.data(), 0)
                : kv_zmadd(sides.client, key.data(), key.size(), &data.scores[first],
                           members.data(), count, member_lens.data(), 0);
        if (status != KV_SUCCESS && status != KV_ALREADY_EXISTS) {
            throw std::runtime_error("filling " + key + " through the library: " +
                                     status_text(status));
        }
    }
}

void fill_native(RawConnection& conn, const std::string& main_key, const std::string& values_key,
                 const DataSet& data) {
    for (std::uint64_t first = 0; first < data.members.size(); first += kSlice) {
        const std::uint64_t last = std::min<std::uint64_t>(first + kSlice, data.members.size());
        std::vector<std::string> zadd = {"ZADD", main_key};
        std::vector<std::string> hset = {"HSET", values_key};
        for (std::uint64_t i = first; i < last; ++i) {
            char score[40];
            score_text(data.scores[i], score, sizeof score);
            zadd.emplace_back(score);
            zadd.push_back(data.members[i]);
            if (!data.values.empty()) {
                hset.push_back(data.members[i]);
                hset.push_back(data.values[i]);
            }
        }
        conn.command(zadd);
        if (hset.size() > 2) conn.command(hset);
    }
}

}  // namespace kelvane_bench
