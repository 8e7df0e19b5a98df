// server_keys.h -- where a kelvane key lives in the server.
//
// Key K owns two server keys, "kv{E}" (the main key: its Redis type is the
// kelvane kind) and "kv{E}:v" (the values hash), where E is K with '%', '{'
// and '}' written as %25, %7B and %7D, and the empty key written as a lone
// '%'. docs/data-layout.md says why.
#ifndef KELVANE_SERVER_KEYS_H
#define KELVANE_SERVER_KEYS_H

#include <cstddef>
#include <string>

namespace kelvane {

struct ServerKeys {
    std::string main;
    std::string values;
};

ServerKeys server_keys(const char* key, std::size_t key_len);

}  // namespace kelvane

#endif  // KELVANE_SERVER_KEYS_H
