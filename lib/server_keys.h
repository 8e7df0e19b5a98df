// server_keys.h -- where a kelvane key lives in the server, and which
// cluster slot that is.
//
// Key K owns two server keys, "kv{E}" (the main key: its Redis type is the
// kelvane kind) and "kv{E}:v" (the values hash), where E is K with '%', '{'
// and '}' written as %25, %7B and %7D, and the empty key written as a lone
// '%'. docs/data-layout.md says why. Both names carry the hash tag {E}, so
// both live in the slot of E.
#ifndef KELVANE_SERVER_KEYS_H
#define KELVANE_SERVER_KEYS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace kelvane {

inline constexpr char kValuesSuffix[] = ":v";

// Length of "kv{E}" for key K.
std::size_t server_key_length(const char* key, std::size_t key_len);

// Writes "kv{E}" at out (server_key_length() bytes); the end of it.
char* write_server_key(char* out, const char* key, std::size_t key_len);

// The cluster slot of both server keys of K: CRC16 of E, modulo 16384.
uint16_t key_slot(const char* key, std::size_t key_len);

}  // namespace kelvane

#endif  // KELVANE_SERVER_KEYS_H
