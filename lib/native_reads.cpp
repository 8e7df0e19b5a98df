// native_reads.cpp -- kv_zscore, kv_zrank, kv_zcard and kv_zcount on native
// commands.
//
// The answers the functions give (functions/reads.lua), worked out here: a
// key of another kind is KV_WRONG_REPLY (the values hash's kind counts only
// once the member was found), a nil score or rank is KV_NOTFOUND for an
// absent key and KV_NO_SET_KEY otherwise, and an absent key counts as empty.
#include "native_reads.h"

#include <array>

#include "native_point_reply.h"
#include "read_attempts.h"
#include "server_keys.h"

namespace kelvane::native {
namespace {

// One read of a member: its score or rank (command ZSCORE, ZRANK or
// ZREVRANK), then its value when asked for, then whether the key exists
// when that was asked: one command alone, or several in envelope.
class MemberRead {
public:
    static constexpr std::size_t kMember = 0, kValue = 1;

    MemberRead(std::string_view command, bool with_value, bool with_exists,
               const Envelope& envelope)
        : command_(command), with_value_(with_value), with_exists_(with_exists) {
        answers_[n_++] = command == "ZSCORE" ? Answer::bulk_or_nil : Answer::integer_or_nil;
        if (with_value) answers_[n_++] = Answer::bulk_or_nil;
        if (with_exists) answers_[n_++] = Answer::integer;
        envelope_ = n_ > 1 ? envelope : kPlain;
    }

    const Envelope& envelope() const { return envelope_; }
    NativePointReply reply(kv_mm* mm) const {
        return NativePointReply(answers_.data(), n_, with_value_ ? 1u << kValue : 0, envelope_, mm,
                                with_value_ ? static_cast<int>(kValue) : -1);
    }
    // Sends the read and takes its replies into reply (made by reply()).
    int32_t run(kv_client* client, const char* key, std::size_t key_len, std::string_view member,
                NativePointReply& reply) const {
        Request& r = client->request().start();
        open_envelope(r, envelope_, key, key_len);
        r.command(3, command_).server_key(key, key_len, "").arg(member);
        if (with_value_) r.values_command(3, "HGET").server_key(key, key_len, kValuesSuffix).arg(member);
        if (with_exists_) r.command(2, "EXISTS").server_key(key, key_len, "");
        close_envelope(r, envelope_);
        return client->run_command(key, key_len, reply);
    }

    // The status of a read whose member was not found: what EXISTS said.
    int32_t missing_member(const NativePointReply& reply) const {
        long long found = 0;
        if (!reply.integer(n_ - 1, &found)) return KV_SERVER_ERROR;
        return found != 0 ? KV_NO_SET_KEY : KV_NOTFOUND;
    }

    // The value the read found, once the member was.
    static int32_t hand_value(NativePointReply& reply, char** value, std::size_t* value_len) {
        if (reply.is_wrong_type(kValue)) return KV_WRONG_REPLY;
        if (reply.no_memory()) return KV_NO_MEMORY;
        *value_len = reply.handed_len();
        *value = reply.take_handed().release();
        return KV_SUCCESS;
    }

private:
    std::string_view command_;
    bool with_value_, with_exists_;
    Envelope envelope_;
    std::array<Answer, 3> answers_{};
    std::size_t n_ = 0;
};

// Reads member with command until it has an answer; found(reply) takes the
// member's score or rank and value from a read that found it.
template <class Found>
int32_t read_member(kv_client* client, const char* key, std::size_t key_len,
                    std::string_view member, std::string_view command, bool with_value,
                    Found&& found) {
    ReadAttempts attempts(*client);
    // Most reads find their member: EXISTS joins only a later attempt.
    bool with_exists = false;
    for (;;) {
        const MemberRead read(command, with_value, with_exists, attempts.envelope());
        NativePointReply reply = read.reply(client->mm);
        int32_t status = read.run(client, key, key_len, member, reply);
        if (attempts.again(read.envelope(), reply, &status)) continue;
        if (status != KV_SUCCESS) return status;
        if (reply.is_wrong_type(MemberRead::kMember)) return KV_WRONG_REPLY;
        if (!reply.is_nil(MemberRead::kMember)) return found(reply);
        if (with_exists) return read.missing_member(reply);
        with_exists = true;
    }
}

}  // namespace

int32_t zscore(kv_client* client, const char* key, std::size_t key_len, std::string_view member,
               double* score, char** value, std::size_t* value_len) {
    return read_member(client, key, key_len, member, "ZSCORE", true, [&](NativePointReply& reply) {
        double found = 0;
        if (!reply.score(MemberRead::kMember, &found)) return KV_SERVER_ERROR;
        const int32_t status = MemberRead::hand_value(reply, value, value_len);
        if (status == KV_SUCCESS) *score = found;
        return status;
    });
}

int32_t zrank(kv_client* client, const char* key, std::size_t key_len, std::string_view member,
              bool reverse, uint32_t* rank, char** value, std::size_t* value_len) {
    const bool with_value = value != nullptr;
    return read_member(client, key, key_len, member, reverse ? "ZREVRANK" : "ZRANK", with_value,
                       [&](NativePointReply& reply) {
                           uint32_t found = 0;
                           if (!reply.count(MemberRead::kMember, &found)) return KV_SERVER_ERROR;
                           const int32_t status =
                               with_value ? MemberRead::hand_value(reply, value, value_len) : KV_SUCCESS;
                           if (status == KV_SUCCESS) *rank = found;
                           return status;
                       });
}

int32_t count(kv_client* client, const char* key, std::size_t key_len, const double* bounds,
              uint32_t* count) {
    Request& r = client->request().start();
    if (bounds != nullptr) {
        r.command(4, "ZCOUNT").server_key(key, key_len, "").score(bounds[0]).score(bounds[1]);
    } else {
        r.command(2, "ZCARD").server_key(key, key_len, "");
    }
    const Answer answer = Answer::integer;
    NativePointReply reply(&answer, 1, 0, kPlain);
    const int32_t status = client->run_command(key, key_len, reply);
    if (status != KV_SUCCESS) return status;
    if (reply.is_wrong_type(0)) return KV_WRONG_REPLY;
    return reply.count(0, count) ? KV_SUCCESS : KV_SERVER_ERROR;
}

}  // namespace kelvane::native
