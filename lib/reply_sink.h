// reply_sink.h -- where hiredis's protocol reader puts one reply while it
// parses it.
//
// The reader calls a sink for every element of a reply, in order. Each kind
// of reply has a sink that keeps just what the caller needs, in its final
// place (numbers, result buffers of the memory manager), so no reply tree is
// built and copied again. A top-level error reply is kept by the base class,
// for the router to act on (redirections, retries) or to turn into a status.
#ifndef KELVANE_REPLY_SINK_H
#define KELVANE_REPLY_SINK_H

#include <hiredis/read.h>

#include <cstddef>
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

class ReplySink {
public:
    virtual ~ReplySink() = default;

    // Forgets whatever was parsed and releases what was made from it, so the
    // sink can take the reply of the command sent again.
    void reset();

    bool is_error() const { return is_error_; }
    std::string_view error() const { return error_; }

    // Entry points for the reader's callbacks.
    void take_string(const ReplyPosition& at, int type, const char* bytes, std::size_t len);
    virtual void take_array(const ReplyPosition& at, std::size_t count) = 0;
    virtual void take_integer(const ReplyPosition& at, long long value) = 0;
    virtual void take_nil(const ReplyPosition& at) = 0;

protected:
    // A string element (bulk, or a status line: is_status) that is not a
    // top-level error.
    virtual void take_text(const ReplyPosition& at, bool is_status, const char* bytes,
                           std::size_t len) = 0;
    virtual void clear() = 0;

private:
    bool is_error_ = false;
    std::string error_;
};

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

class ValueReply final : public ReplySink {
public:
    const Value& value() const { return root_; }

    void take_array(const ReplyPosition& at, std::size_t count) override;
    void take_integer(const ReplyPosition& at, long long value) override;
    void take_nil(const ReplyPosition& at) override;

private:
    void take_text(const ReplyPosition& at, bool is_status, const char* bytes,
                   std::size_t len) override;
    void clear() override;
    Value& place(const ReplyPosition& at);

    Value root_;
    std::vector<Value*> open_;  // the array open at each depth
};

}  // namespace kelvane

#endif  // KELVANE_REPLY_SINK_H
