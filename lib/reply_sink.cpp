// reply_sink.cpp -- the reader's callbacks, tags, and the reply tree.
#include "reply_sink.h"

#include <algorithm>
#include <new>

#include "kelvane.h"

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

// Runs one callback of the reader. The reader is C: nothing may unwind
// through it. A sink that refuses an element, or an exception, makes the
// callback answer NULL, which stops the reader with an error; otherwise it
// answers the sink itself (the reader only needs a pointer that is not
// null, and the sink owns whatever was made).
template <class Take>
void* deliver(const redisReadTask* task, Take&& take) noexcept {
    ReplyPosition at{};
    ReplySink* sink = locate(task, &at);
    try {
        if (take(*sink, at)) return sink;
        sink->fail(KV_SERVER_ERROR);
    } catch (const std::bad_alloc&) {
        sink->fail(KV_NO_MEMORY);
    } catch (...) {
        sink->fail(KV_SERVER_ERROR);
    }
    return nullptr;
}

void* create_string(const redisReadTask* task, char* bytes, size_t len) {
    return deliver(task, [&](ReplySink& sink, const ReplyPosition& at) {
        return sink.on_string(at, task->type, bytes, len);
    });
}

void* create_array(const redisReadTask* task, int count) {
    return deliver(task, [&](ReplySink& sink, const ReplyPosition& at) {
        return count >= 0 && sink.on_array(at, static_cast<std::size_t>(count));
    });
}

void* create_integer(const redisReadTask* task, long long value) {
    return deliver(task, [&](ReplySink& sink, const ReplyPosition& at) {
        return sink.on_integer(at, value);
    });
}

void* create_nil(const redisReadTask* task) {
    return deliver(task, [&](ReplySink& sink, const ReplyPosition& at) { return sink.on_nil(at); });
}

void free_object(void*) {}

redisReplyObjectFunctions g_sink_functions = {create_string, create_array, create_integer,
                                              create_nil, free_object};

}  // namespace

void ReplySink::reset() {
    is_error_ = in_tag_reply_ = false;
    tag_index_ = -1;
    failure_ = KV_SUCCESS;
    error_.clear();
    clear();
}

bool ReplySink::take_error(const ReplyPosition&, const char*, std::size_t) { return false; }

bool ReplySink::take_top_error(const char*, std::size_t) { return false; }

void ReplySink::note_error(std::string_view text) {
    is_error_ = true;
    error_.assign(text);
}

void ReplySink::fail(int32_t status) {
    if (failure_ == KV_SUCCESS) failure_ = status;
}

bool ReplySink::take_tag_reply(const ReplyPosition& at, int type, const char* bytes,
                               std::size_t len) {
    in_tag_reply_ = false;
    if (at.depth != 0) return false;
    if (type == REDIS_REPLY_ERROR) {
        // The tag's command was refused (an access rule): the call ends with
        // that error, unless its own reply was one already.
        if (!is_error_) {
            is_error_ = true;
            error_.assign(bytes, len);
        }
        return true;
    }
    return type == REDIS_REPLY_STRING && std::string_view(bytes, len) == tag_;
}

bool ReplySink::on_string(const ReplyPosition& at, int type, const char* bytes,
                          std::size_t len) {
    if (in_tag_reply_) return take_tag_reply(at, type, bytes, len);
    if (at.depth == 0 && type == REDIS_REPLY_ERROR) {
        if (!take_top_error(bytes, len)) note_error(std::string_view(bytes, len));
        return true;
    }
    if (at_tag(at)) return type == REDIS_REPLY_STRING && std::string_view(bytes, len) == tag_;
    if (type == REDIS_REPLY_ERROR) return take_error(at, bytes, len);
    // A function's reply is an array (or an error).
    if (at.depth == 0 && tag_place_ == TagPlace::last_element) return false;
    return take_text(at, type == REDIS_REPLY_STRING, bytes, len);
}

bool ReplySink::on_array(const ReplyPosition& at, std::size_t count) {
    if (in_tag_reply_ || at_tag(at)) return false;
    if (at.depth == 0 && tag_place_ == TagPlace::last_element) {
        if (count == 0) return false;  // no room for the tag
        tag_index_ = static_cast<int>(count - 1);
        return take_array(at, count - 1);
    }
    return take_array(at, count);
}

bool ReplySink::on_integer(const ReplyPosition& at, long long value) {
    if (in_tag_reply_ || at_tag(at)) return false;
    if (at.depth == 0 && tag_place_ == TagPlace::last_element) return false;
    return take_integer(at, value);
}

bool ReplySink::on_nil(const ReplyPosition& at) {
    if (in_tag_reply_ || at_tag(at)) return false;
    if (at.depth == 0 && tag_place_ == TagPlace::last_element) return false;
    return take_nil(at);
}

Reader make_reader() { return Reader(redisReaderCreateWithFunctions(&g_sink_functions)); }

void set_sink(redisReader* reader, ReplySink* sink) {
    reader->privdata = sink;
    sink->attach(reader);
}

const Value* Value::field(std::string_view key) const {
    for (std::size_t i = 0; i + 1 < elements.size(); i += 2) {
        if (elements[i].type == Type::text && elements[i].text == key) return &elements[i + 1];
    }
    return nullptr;
}

Value* ValueReply::place(const ReplyPosition& at) {
    if (++elements_ > kMaxElements) return nullptr;
    if (at.depth == 0) {
        root_ = Value{};
        open_.assign(1, &root_);
        return &root_;
    }
    // Elements arrive depth first: an array's parent gains no element while
    // the array is open, so the array never moves while open_ points at it.
    Value* parent = open_[static_cast<std::size_t>(at.depth - 1)];
    parent->elements.emplace_back();
    return &parent->elements.back();
}

bool ValueReply::take_array(const ReplyPosition& at, std::size_t count) {
    Value* v = place(at);
    if (v == nullptr || count > kMaxElements - elements_) return false;
    v->type = Value::Type::array;
    // Room for what the bytes at hand can hold; the rest grows as it comes.
    v->elements.reserve(std::min(count, unread_bytes() / kLeastElementBytes));
    open_.resize(static_cast<std::size_t>(at.depth) + 1);
    open_[static_cast<std::size_t>(at.depth)] = v;
    return true;
}

bool ValueReply::take_integer(const ReplyPosition& at, long long value) {
    Value* v = place(at);
    if (v == nullptr) return false;
    v->type = Value::Type::integer;
    v->integer = value;
    return true;
}

bool ValueReply::take_nil(const ReplyPosition& at) {
    Value* v = place(at);
    if (v == nullptr) return false;
    v->type = Value::Type::nil;
    return true;
}

bool ValueReply::take_error(const ReplyPosition& at, const char* bytes, std::size_t len) {
    return take_text(at, false, bytes, len);
}

bool ValueReply::take_text(const ReplyPosition& at, bool, const char* bytes, std::size_t len) {
    Value* v = place(at);
    if (v == nullptr) return false;
    v->type = Value::Type::text;
    v->text.assign(bytes, len);
    return true;
}

void ValueReply::clear() {
    root_ = Value{};
    open_.clear();
    elements_ = 0;
}

}  // namespace kelvane
