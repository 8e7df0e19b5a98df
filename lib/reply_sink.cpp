// reply_sink.cpp -- the reader's callbacks, and the reply tree.
#include "reply_sink.h"

namespace kelvane {
namespace {

// Where a task sits, and the sink of the reply it belongs to (kept by the
// reply's root task).
ReplySink* locate(const redisReadTask* task, ReplyPosition* at) {
    at->depth = 0;
    at->index = task->idx;
    at->parent_index = task->parent != nullptr ? task->parent->idx : -1;
    const redisReadTask* root = task;
    while (root->parent != nullptr) {
        root = root->parent;
        ++at->depth;
    }
    return static_cast<ReplySink*>(root->privdata);
}

// Every callback answers with the sink itself: the reader only needs a
// pointer that is not null, and the sink owns whatever was made.
void* create_string(const redisReadTask* task, char* bytes, size_t len) {
    ReplyPosition at{};
    ReplySink* sink = locate(task, &at);
    sink->take_string(at, task->type, bytes, len);
    return sink;
}

void* create_array(const redisReadTask* task, int count) {
    ReplyPosition at{};
    ReplySink* sink = locate(task, &at);
    sink->take_array(at, count > 0 ? static_cast<std::size_t>(count) : 0);
    return sink;
}

void* create_integer(const redisReadTask* task, long long value) {
    ReplyPosition at{};
    ReplySink* sink = locate(task, &at);
    sink->take_integer(at, value);
    return sink;
}

void* create_nil(const redisReadTask* task) {
    ReplyPosition at{};
    ReplySink* sink = locate(task, &at);
    sink->take_nil(at);
    return sink;
}

void free_object(void*) {}

redisReplyObjectFunctions g_sink_functions = {create_string, create_array, create_integer,
                                              create_nil, free_object};

}  // namespace

void ReplySink::reset() {
    is_error_ = false;
    error_.clear();
    clear();
}

void ReplySink::take_string(const ReplyPosition& at, int type, const char* bytes,
                            std::size_t len) {
    if (at.depth == 0 && type == REDIS_REPLY_ERROR) {
        is_error_ = true;
        error_.assign(bytes, len);
        return;
    }
    take_text(at, type == REDIS_REPLY_STATUS || type == REDIS_REPLY_ERROR, bytes, len);
}

Reader make_reader() { return Reader(redisReaderCreateWithFunctions(&g_sink_functions)); }

void set_sink(redisReader* reader, ReplySink* sink) { reader->privdata = sink; }

const Value* Value::field(std::string_view key) const {
    for (std::size_t i = 0; i + 1 < elements.size(); i += 2) {
        if (elements[i].type == Type::text && elements[i].text == key) return &elements[i + 1];
    }
    return nullptr;
}

Value& ValueReply::place(const ReplyPosition& at) {
    if (at.depth == 0) {
        root_ = Value{};
        open_.assign(1, &root_);
        return root_;
    }
    // The parent was opened with room for all its elements, so taking the
    // address of a new one never moves the others.
    Value* parent = open_[static_cast<std::size_t>(at.depth - 1)];
    parent->elements.emplace_back();
    return parent->elements.back();
}

void ValueReply::take_array(const ReplyPosition& at, std::size_t count) {
    Value& v = place(at);
    v.type = Value::Type::array;
    v.elements.reserve(count);
    open_.resize(static_cast<std::size_t>(at.depth) + 1);
    open_[static_cast<std::size_t>(at.depth)] = &v;
}

void ValueReply::take_integer(const ReplyPosition& at, long long value) {
    Value& v = place(at);
    v.type = Value::Type::integer;
    v.integer = value;
}

void ValueReply::take_nil(const ReplyPosition& at) { place(at).type = Value::Type::nil; }

void ValueReply::take_text(const ReplyPosition& at, bool, const char* bytes, std::size_t len) {
    Value& v = place(at);
    v.type = Value::Type::text;
    v.text.assign(bytes, len);
}

void ValueReply::clear() {
    root_ = Value{};
    open_.clear();
}

}  // namespace kelvane
