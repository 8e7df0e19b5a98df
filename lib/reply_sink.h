// reply_sink.h -- where hiredis's protocol reader puts one reply while it
// parses it.
//
// The reader calls a sink for every element of a reply, in order. Each kind
// of reply has a sink that keeps just what the caller needs, in its final
// place (numbers, result buffers of the memory manager), so no reply tree is
// built and copied again. A top-level error reply is kept by the base class,
// for the router to act on (redirections, retries) or to turn into a status.
//
// A sink trusts nothing it is told: every element must fit the shape of the
// reply its command can get, and every announced count is checked before
// anything is allocated for it. An element that does not fit stops the
// reader at once (the stream is out of step, and its connection is closed);
// failure() then says why.
//
// A reply can also be made to prove whose it is: the call chooses a tag,
// sends it with its command, and the reply must carry it back, as the last
// element of a function's reply or as the echo of a PING sent after native
// commands. A reply that carries another tag belongs to another command.
//
// A sink takes one reply, or the several replies of a run of commands
// (replies()), each delivered at depth 0 in turn.
#ifndef KELVANE_REPLY_SINK_H
#define KELVANE_REPLY_SINK_H

#include <hiredis/read.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

// Where an element sits: depth 0 is the reply itself; index is the place in
// its parent array and parent_index the parent's place in its own parent
// (-1 where there is none).
struct ReplyPosition {
    int depth;
    int index;
    int parent_index;
};

// Where a reply carries its call's tag.
enum class TagPlace : uint8_t {
    none,          // it carries none (commands whose replies are checked by shape alone)
    last_element,  // the last element of the reply array (the server functions)
    own_reply,     // a reply of its own right after it (a PING's echo)
};

class ReplySink {
public:
    virtual ~ReplySink() = default;

    // Forgets whatever was parsed and releases what was made from it, so the
    // sink can take the reply of the command sent again. The tag stays.
    void reset();

    // The tag this reply must carry, and where; tag must outlive the sink.
    void expect_tag(std::string_view tag, TagPlace place) {
        tag_ = tag;
        tag_place_ = place;
    }
    bool tag_follows() const { return tag_place_ == TagPlace::own_reply; }
    std::string_view tag() const { return tag_; }
    TagPlace tag_place() const { return tag_place_; }
    // The next reply the reader delivers is the tag's own.
    void start_tag_reply() { in_tag_reply_ = true; }

    // How many replies this sink takes before its tag's (one by default),
    // and what it makes of them once they have all come.
    virtual std::size_t replies() const { return 1; }
    virtual void replies_read() {}
    // Which form of the request was sent: the one without the values key
    // (Request::main_key_only()) or the whole one. Kept across reset().
    void expect_main_key_only(bool main_key_only) { main_key_only_ = main_key_only; }

    bool is_error() const { return is_error_; }
    std::string_view error() const { return error_; }

    // Why the sink stopped the reader: KV_SERVER_ERROR for a reply that does
    // not fit its command, KV_NO_MEMORY when the client ran out of memory;
    // KV_SUCCESS when it did not.
    int32_t failure() const { return failure_; }
    void fail(int32_t status);

    // Entry points for the reader's callbacks; false stops the reader.
    bool on_string(const ReplyPosition& at, int type, const char* bytes, std::size_t len);
    bool on_array(const ReplyPosition& at, std::size_t count);
    bool on_integer(const ReplyPosition& at, long long value);
    bool on_nil(const ReplyPosition& at);

    // Set by set_sink(): the reader that feeds this sink.
    void attach(const redisReader* reader) { reader_ = reader; }

protected:
    // The elements of the reply, the tag left out (a tagged reply's array
    // is announced one shorter). Each answers false when the element does
    // not fit. is_bulk: a bulk string, not a status or a nested error line.
    virtual bool take_text(const ReplyPosition& at, bool is_bulk, const char* bytes,
                           std::size_t len) = 0;
    virtual bool take_array(const ReplyPosition& at, std::size_t count) = 0;
    virtual bool take_integer(const ReplyPosition& at, long long value) = 0;
    virtual bool take_nil(const ReplyPosition& at) = 0;
    // An error inside a reply (in a transaction's reply, a command's own
    // error): refused unless the sink expects one.
    virtual bool take_error(const ReplyPosition& at, const char* bytes, std::size_t len);
    // An error that is a whole reply: false leaves it to the base class as
    // the error of the request; a sink that takes several replies may take it
    // as the answer of one of its commands instead.
    virtual bool take_top_error(const char* bytes, std::size_t len);
    virtual void clear() = 0;

    // Makes text the error of the request (replacing any earlier one), for a
    // sink that works out which of its replies' errors counts.
    void note_error(std::string_view text);
    bool main_key_only() const { return main_key_only_; }

    // Bytes the reader holds and has not parsed yet. Until more arrive, no
    // array can hold more elements than these bytes can carry (three bytes
    // at the least for any element), so nothing is allocated for more.
    std::size_t unread_bytes() const {
        return reader_ != nullptr && reader_->len > reader_->pos ? reader_->len - reader_->pos : 0;
    }

private:
    bool take_tag_reply(const ReplyPosition& at, int type, const char* bytes, std::size_t len);
    // Whether this element is the tag of a reply that ends with it.
    bool at_tag(const ReplyPosition& at) const {
        return tag_place_ == TagPlace::last_element && at.depth == 1 && at.index == tag_index_;
    }

    bool is_error_ = false;
    bool in_tag_reply_ = false;
    bool main_key_only_ = false;
    TagPlace tag_place_ = TagPlace::none;
    int tag_index_ = -1;
    int32_t failure_ = 0;
    std::string_view tag_;
    std::string error_;
    const redisReader* reader_ = nullptr;
};

// The fewest bytes any element of a reply takes on the wire ("+\r\n").
inline constexpr std::size_t kLeastElementBytes = 3;

// A protocol reader whose callbacks feed the sink set with set_sink().
struct ReaderFree {
    void operator()(redisReader* r) const noexcept { redisReaderFree(r); }
};
using Reader = std::unique_ptr<redisReader, ReaderFree>;
Reader make_reader();
void set_sink(redisReader* reader, ReplySink* sink);

// The whole reply as a tree, for the few commands whose replies the client
// inspects in full (HELLO, CLUSTER SLOTS, FUNCTION LIST, FUNCTION LOAD).
struct Value {
    enum class Type { text, integer, nil, array } type = Type::nil;
    long long integer = 0;
    std::string text;
    std::vector<Value> elements;

    // The element after the string element named key in a flat key-value
    // array, or nullptr.
    const Value* field(std::string_view key) const;
};

// Takes any reply and keeps nothing of it, but still checks its tag: the
// reply of a call that stopped waiting for it, read so that the connection
// stays in step for the calls after it.
class DiscardReply final : public ReplySink {
private:
    bool take_text(const ReplyPosition&, bool, const char*, std::size_t) override { return true; }
    bool take_array(const ReplyPosition&, std::size_t) override { return true; }
    bool take_integer(const ReplyPosition&, long long) override { return true; }
    bool take_nil(const ReplyPosition&) override { return true; }
    bool take_error(const ReplyPosition&, const char*, std::size_t) override { return true; }
    void clear() override {}
};

class ValueReply final : public ReplySink {
public:
    // No reply read whole may hold more elements than this, in all. The
    // largest a client asks for is a slot map: even 16384 ranges of one slot
    // each, with a master and a dozen replicas apiece, hold about 1.3
    // million.
    static constexpr std::size_t kMaxElements = std::size_t{1} << 22;

    const Value& value() const { return root_; }

private:
    bool take_text(const ReplyPosition& at, bool is_bulk, const char* bytes,
                   std::size_t len) override;
    bool take_array(const ReplyPosition& at, std::size_t count) override;
    bool take_integer(const ReplyPosition& at, long long value) override;
    bool take_nil(const ReplyPosition& at) override;
    bool take_error(const ReplyPosition& at, const char* bytes, std::size_t len) override;
    void clear() override;
    // The new element at this position; nullptr past the cap.
    Value* place(const ReplyPosition& at);

    Value root_;
    std::vector<Value*> open_;  // the array open at each depth
    std::size_t elements_ = 0;
};

}  // namespace kelvane

#endif  // KELVANE_REPLY_SINK_H
