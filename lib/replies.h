// replies.h -- reading the replies of the server's kelvane functions, and
// handing their data to the caller in memory-manager buffers.
//
// Every function answers an array whose first element is a status; the
// fields after it depend on the function. A reply of any other shape is the
// server's fault and reads as KV_SERVER_ERROR.
#ifndef KELVANE_REPLIES_H
#define KELVANE_REPLIES_H

#include <hiredis/hiredis.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kelvane.h"

namespace kelvane {

// The status a function answered with.
int32_t function_status(const redisReply* reply);

// Field i (0 being the status) of a function's reply, or nullptr.
const redisReply* field(const redisReply* reply, std::size_t i);

bool read_integer(const redisReply* field, long long* out);
bool read_score(const redisReply* field, double* out);
bool read_count(const redisReply* field, uint32_t* out);

// A value: a copy of a string field, or NULL for a nil one.
int32_t hand_out_value(kv_mm* mm, const redisReply* field, char** value, std::size_t* value_len);

// Where a range read puts its result; the optional arrays are null when the
// caller did not ask for them.
struct RangeOut {
    void*** members;
    std::size_t* count;
    std::size_t** members_len;
    double** scores;
    void*** values;
    std::size_t** values_len;
};

// Zeroes every requested part of a range result.
void clear_range(const RangeOut& out);

// Hands out the members, scores and values of a zrange reply, each member
// and non-null value followed by suffix. All or nothing: on failure every
// buffer made so far is released and the result stays cleared.
int32_t hand_out_range(kv_mm* mm, const redisReply* reply, std::string_view suffix,
                       const RangeOut& out);

}  // namespace kelvane

#endif  // KELVANE_REPLIES_H
