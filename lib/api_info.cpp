// api_info.cpp -- what the library says about itself and about failures:
// its version, the names of statuses, and why a client's last call failed.
#include "client.h"
#include "kelvane.h"
#include "status_text.h"

extern "C" const char* kv_version(void) { return KELVANE_VERSION_STRING; }

extern "C" const char* kv_status_name(int32_t status) {
    const char* name = kelvane::status_name(status);
    return name != nullptr ? name : "unknown status";
}

extern "C" const char* kv_last_error(const kv_client* client) {
    if (client == nullptr) return "no client (NULL)";
    return client->last_error();
}
