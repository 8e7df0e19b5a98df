// cluster_view.cpp -- CLUSTER SLOTS and CLUSTER INFO in one round trip, and
// the comparison of two nodes' answers.
#include "cluster_view.h"

#include <charconv>
#include <string_view>

#include "kelvane.h"
#include "server_error.h"

namespace kelvane {
namespace {

// Both commands, pipelined: the epoch costs no round trip of its own.
constexpr std::string_view kSlotsAndInfo =
    "*2\r\n$7\r\nCLUSTER\r\n$5\r\nSLOTS\r\n"
    "*2\r\n$7\r\nCLUSTER\r\n$4\r\nINFO\r\n";

// "cluster_current_epoch:<n>" in CLUSTER INFO's text, or -1.
long long current_epoch(std::string_view info) {
    constexpr std::string_view kField = "cluster_current_epoch:";
    const auto at = info.find(kField);
    if (at == std::string_view::npos) return -1;
    const char* from = info.data() + at + kField.size();
    long long epoch = -1;
    const auto [end, ec] = std::from_chars(from, info.data() + info.size(), epoch);
    return ec == std::errc() && end != from ? epoch : -1;
}

}  // namespace

int32_t ask_cluster_view(NodeConnection& connection, const Endpoint& asked, Deadline deadline,
                         ClusterView* view) {
    ValueReply slots, info;
    const Exchange done = connection.exchange(kSlotsAndInfo, {&slots, &info}, deadline);
    if (done.status != KV_SUCCESS) return done.status;
    if (slots.is_error()) return status_of(classify_error(slots.error()).kind);
    if (!view->map.load(slots.value(), asked)) return KV_SERVER_ERROR;
    view->epoch = !info.is_error() && info.value().type == Value::Type::text
                      ? current_epoch(info.value().text)
                      : -1;
    return KV_SUCCESS;
}

bool better_view(const ClusterView& a, const ClusterView& b) {
    if (a.map.covered() != b.map.covered()) return a.map.covered() > b.map.covered();
    return a.epoch > b.epoch;
}

}  // namespace kelvane
