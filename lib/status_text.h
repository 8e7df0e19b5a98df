// status_text.h -- statuses in words: their names, what each means, and
// which of them are failures rather than answers of the store.
#ifndef KELVANE_STATUS_TEXT_H
#define KELVANE_STATUS_TEXT_H

#include <cstdint>

namespace kelvane {

// "KV_TIMEOUT"; nullptr for a code that is not a status.
const char* status_name(int32_t status);
// A sentence on what the status means, for a failure nothing more specific
// explains.
const char* status_meaning(int32_t status);
// False for success and for the store's own answers (KV_NOTFOUND,
// KV_ALREADY_EXISTS, KV_NO_SET_KEY, KV_WRONG_REPLY).
bool is_failure(int32_t status);

}  // namespace kelvane

#endif  // KELVANE_STATUS_TEXT_H
