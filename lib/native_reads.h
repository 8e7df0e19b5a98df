// native_reads.h -- the sorted-set reads on native commands instead of the
// server functions: what each sends, and how each works out, in the client,
// the status and the results the function would have answered.
//
// A read of one key's data is one command where one command holds it all
// (ZRANK, ZCARD, ZCOUNT, a range without values), and otherwise a
// transaction (MULTI ... EXEC), so it still sees the key at one moment and
// costs one round trip. Where only a second look tells an absent key from an
// absent member (a nil score or rank, an empty range), the read is made once
// more with EXISTS in the same transaction. Range reads with values have
// paths of their own (native_ranges.cpp). None of them needs the function
// library, so they also serve a user who may not run functions.
#ifndef KELVANE_NATIVE_READS_H
#define KELVANE_NATIVE_READS_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "client.h"
#include "range_builder.h"
#include "range_selection.h"

namespace kelvane::native {

// kv_zscore: the score, and the value (null for none) as a buffer of the
// client's memory manager that the caller takes.
int32_t zscore(kv_client* client, const char* key, std::size_t key_len, std::string_view member,
               double* score, char** value, std::size_t* value_len);

// kv_zrank: the rank, counted from the highest score when reverse, and the
// value when value is not null.
int32_t zrank(kv_client* client, const char* key, std::size_t key_len, std::string_view member,
              bool reverse, uint32_t* rank, char** value, std::size_t* value_len);

// kv_zcard (bounds null) and kv_zcount (bounds: min and max).
int32_t count(kv_client* client, const char* key, std::size_t key_len, const double* bounds,
              uint32_t* count);

// The four range reads (native_ranges.cpp).
int32_t range(kv_client* client, const char* key, std::size_t key_len, const Selection& sel,
              bool reverse, std::string_view suffix, const RangeOut& out);

}  // namespace kelvane::native

#endif  // KELVANE_NATIVE_READS_H
