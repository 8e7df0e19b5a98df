// native_ranges.cpp -- the four range reads on native commands.
//
// The function answers (functions/reads.lua), worked out here: a main key
// of another kind is KV_WRONG_REPLY; an empty range is KV_NOTFOUND for an
// absent key and an empty success otherwise; a values hash of another kind
// is KV_WRONG_REPLY once the range holds members; a member without a value
// gets a null one.
//
// Three paths, by what the read needs:
// - without values: ZRANGE alone, and on an empty range once more with
//   EXISTS, atomically;
// - with values from a small values hash (or of a whole set whose hash is
//   not large): ZRANGE, HGETALL of the values hash (joined to the members in
//   the client) and EXISTS, atomically, in one round trip;
// - with values from a large one: WATCH both keys, ZRANGE and HLEN; then
//   HMGET of just those members and an empty MULTI/EXEC that answers only
//   if neither key changed since the WATCH; read again if one did. Two round
//   trips, as a hiredis program needs for the same read. After two
//   conflicts, or while the key's slot migrates, the read takes the first
//   path, which fits any range.
// Whether a values hash is small is what the client's last read of the key
// saw (values_sizes.h); unknown, a read of the whole set takes it as small,
// and a read of a part as large. Nothing passes through Lua. (On the auto
// path a read of a few members with values takes the server function
// instead, which answers it in one round trip: client.h.)
#include <cmath>
#include <limits>

#include "native_range_reply.h"
#include "native_reads.h"
#include "read_attempts.h"
#include "server_keys.h"

namespace kelvane::native {
namespace {

constexpr int kWatchedAttempts = 2;

// The most values a hash may hold for a read of the whole set to fetch it
// whole: past a few thousand, joining them to the members costs more than
// the round trip that asks for just the members' values (measured with hashes
// of 1,000 to 100,000 values). A read of a part fetches it whole only while
// it is as small as Redis keeps it in one compact block (128 fields), where
// fetching it all costs about what asking for some of it does.
constexpr std::size_t kSmallValues = 4096;
constexpr std::size_t kCompactValues = 128;

// Appends sel's ZRANGE to r.
void add_zrange(Request& r, const char* key, std::size_t key_len, const Selection& sel,
                bool reverse, bool scores) {
    const bool limit = sel.by_score && sel.limited;
    r.command(4 + (sel.by_score ? 1 : 0) + (reverse ? 1 : 0) + (limit ? 3 : 0) + (scores ? 1 : 0), "ZRANGE");
    r.server_key(key, key_len, "");
    if (!sel.by_score) {
        r.integer(sel.start).integer(sel.stop);
    } else {
        // ZRANGE ... BYSCORE REV takes the bounds high first.
        r.score(reverse ? sel.max : sel.min).score(reverse ? sel.min : sel.max).arg("BYSCORE");
    }
    if (reverse) r.arg("REV");
    if (limit) r.arg("LIMIT").integer(sel.offset).integer(sel.count);
    if (scores) r.arg("WITHSCORES");
}

// Whether sel selects every member, whatever the set holds.
bool whole_set(const Selection& sel) {
    constexpr double inf = std::numeric_limits<double>::infinity();
    if (!sel.by_score) return sel.start == 0 && sel.stop == -1;
    return sel.min == -inf && sel.max == inf && (!sel.limited || (sel.offset == 0 && sel.count < 0));
}

// The status of a range whose replies came whole: an empty range needs
// EXISTS's word; the values hash's kind counts only for members.
int32_t settle(const NativeRangeReply& reply, const RangeBuilder& result) {
    if (reply.items_wrong_type()) return KV_WRONG_REPLY;
    if (result.size() == 0) return reply.key_exists() ? KV_SUCCESS : KV_NOTFOUND;
    if (reply.values_wrong_type()) return KV_WRONG_REPLY;
    return result.no_memory() ? KV_NO_MEMORY : KV_SUCCESS;
}

int32_t without_values(kv_client* client, const char* key, std::size_t key_len,
                       const Selection& sel, bool reverse, RangeBuilder& result) {
    ReadAttempts attempts(*client);
    bool with_exists = false;
    for (;;) {
        const Envelope& envelope = with_exists ? attempts.envelope() : kPlain;
        Request& r = client->request().start();
        open_envelope(r, envelope, key, key_len);
        add_zrange(r, key, key_len, sel, reverse, result.with_scores());
        if (with_exists) r.command(2, "EXISTS").server_key(key, key_len, "");
        close_envelope(r, envelope);
        const RangePart parts[] = {RangePart::items, RangePart::exists};
        NativeRangeReply reply(result, parts, with_exists ? 2 : 1, envelope);
        int32_t status = client->run_command(key, key_len, reply);
        if (attempts.again(envelope, reply, &status)) continue;
        if (status != KV_SUCCESS) return status;
        if (result.size() != 0 || reply.items_wrong_type() || with_exists) return settle(reply, result);
        with_exists = true;
    }
}

int32_t with_values_table(kv_client* client, const char* key, std::size_t key_len,
                          const Selection& sel, bool reverse, RangeBuilder& result) {
    ReadAttempts attempts(*client);
    for (;;) {
        const Envelope& envelope = attempts.envelope();
        Request& r = client->request().start();
        open_envelope(r, envelope, key, key_len);
        add_zrange(r, key, key_len, sel, reverse, result.with_scores());
        r.values_command(2, "HGETALL").server_key(key, key_len, kValuesSuffix);
        r.command(2, "EXISTS").server_key(key, key_len, "");
        close_envelope(r, envelope);
        NativeRangeReply reply(result, {RangePart::items, RangePart::values_table, RangePart::exists},
                               envelope);
        int32_t status = client->run_command(key, key_len, reply);
        if (attempts.again(envelope, reply, &status)) continue;
        if (status != KV_SUCCESS) return status;
        if (reply.values_count()) client->values_sizes.note(ValuesSizes::key_hash({key, key_len}), *reply.values_count());
        result.open_values();  // members without values, where no values hash was read
        return settle(reply, result);
    }
}

// The WATCH a watched range read leaves on its connection between its two
// round trips. The server keeps it for the connection: nothing else may use
// the connection in between, and the read ends it with EXEC (or UNWATCH)
// whatever happens, so that no later transaction meets it. This is the one
// place where state on the server spans two round trips of a call.
//
// Other threads share the connection: the read keeps it to itself from the
// WATCH (run_held) until the EXEC or UNWATCH, so that no other call's
// commands run under its WATCH, nor its check under theirs.
class Watch {
public:
    explicit Watch(kv_client* client) : client_(client) {}
    ~Watch() { release(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    void set() { held_ = true; }
    // An EXEC went out on the connection: it ends any WATCH.
    void ended() {
        held_ = false;
        client_->release_pin();
    }
    void release() {
        if (held_) {
            held_ = false;
            ValueReply reply;
            client_->request().start().command(1, "UNWATCH");
            // Should this fail too, the connection is closed, and the WATCH with it.
            client_->run_pinned(reply);
        }
        client_->release_pin();
    }

private:
    kv_client* client_;
    bool held_ = false;
};

int32_t with_values_watched(kv_client* client, const char* key, std::size_t key_len,
                            const Selection& sel, bool reverse, RangeBuilder& result) {
    constexpr Envelope kOpen{true, false, false}, kCheck{false, false, true};
    for (int attempt = 0; attempt < kWatchedAttempts; ++attempt) {
        Watch watch(client);
        Request& r = client->request().start();
        open_envelope(r, kOpen, key, key_len);
        add_zrange(r, key, key_len, sel, reverse, result.with_scores());
        r.values_command(2, "HLEN").server_key(key, key_len, kValuesSuffix);
        NativeRangeReply first(result, {RangePart::items, RangePart::values_count}, kOpen);
        int32_t status = client->run_held(key, key_len, first);
        watch.set();  // if the connection is gone, so is the WATCH
        if (status == kKeyMoving) break;
        if (status != KV_SUCCESS) return status;
        if (first.values_count()) client->values_sizes.note(ValuesSizes::key_hash({key, key_len}), *first.values_count());
        if (first.items_wrong_type()) return KV_WRONG_REPLY;
        if (result.no_memory()) return KV_NO_MEMORY;

        const std::size_t n = result.size();
        if (n != 0 && !first.whole_form_sent()) {
            // The values hash exists nowhere while the key's slot migrates:
            // ZRANGE alone was the read.
            result.open_values();
            return KV_SUCCESS;
        }
        // The values of just those members, or EXISTS for an empty range;
        // the check runs only if neither key changed since the WATCH.
        Request& second = client->request().start();
        if (n != 0) {
            std::size_t bytes = 64;
            for (std::size_t i = 0; i < n; ++i) bytes += result.member(i).size() + 16;
            second.reserve(bytes);
            second.command(2 + n, "HMGET").server_key(key, key_len, kValuesSuffix);
            for (std::size_t i = 0; i < n; ++i) second.arg(result.member(i));
        } else {
            second.command(2, "EXISTS").server_key(key, key_len, "");
        }
        close_envelope(second, kCheck);
        NativeRangeReply check(result, {n != 0 ? RangePart::values_list : RangePart::exists}, kCheck);
        status = client->run_pinned(check);
        watch.ended();
        if (status == kPinLost) continue;
        if (status != KV_SUCCESS) return status;
        if (check.watch_failed()) continue;  // a key changed since the WATCH: read again
        if (n == 0) return check.key_exists() ? KV_SUCCESS : KV_NOTFOUND;
        result.open_values();
        if (check.values_wrong_type()) return KV_WRONG_REPLY;
        return result.no_memory() ? KV_NO_MEMORY : KV_SUCCESS;
    }
    return with_values_table(client, key, key_len, sel, reverse, result);
}

}  // namespace

int32_t range(kv_client* client, const char* key, std::size_t key_len, const Selection& sel,
              bool reverse, std::string_view suffix, const RangeOut& out) {
    RangeBuilder result(client->mm, suffix, out.scores != nullptr, out.values != nullptr);
    int32_t status = KV_SUCCESS;
    if (!result.with_values()) {
        status = without_values(client, key, key_len, sel, reverse, result);
    } else {
        const auto seen = client->values_sizes.find(ValuesSizes::key_hash({key, key_len}));
        const bool small = whole_set(sel) ? !seen || *seen <= kSmallValues : seen && *seen <= kCompactValues;
        status = small ? with_values_table(client, key, key_len, sel, reverse, result)
                       : with_values_watched(client, key, key_len, sel, reverse, result);
    }
    if (status == KV_SUCCESS) result.hand_out(out);
    return status;
}

}  // namespace kelvane::native
