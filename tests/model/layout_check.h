// layout_check.h -- the server's own view of every kelvane key, checked
// against the rules of docs/data-layout.md: each server key is a main key
// kv{E} (a sorted or plain set) or its values hash kv{E}:v; a values hash
// belongs to a sorted set, names only its members and expires in the same
// millisecond. Meant for a quiet server (no client writing meanwhile).
#ifndef KELVANE_TESTS_MODEL_LAYOUT_CHECK_H
#define KELVANE_TESTS_MODEL_LAYOUT_CHECK_H

#include <string>
#include <vector>

namespace kelvane_model {

struct LayoutReport {
    std::vector<std::string> faults;  // empty when every rule holds
    size_t main_keys = 0;
    size_t value_hashes = 0;
};

LayoutReport check_layout(int port);

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_LAYOUT_CHECK_H
