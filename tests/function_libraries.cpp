// function_libraries.cpp -- FUNCTION LIST taken apart, and marking libraries put together.
#include "function_libraries.h"

#include <hiredis/hiredis.h>

#include <memory>
#include <stdexcept>

namespace kelvane_test {
namespace {

struct ContextFree {
    void operator()(redisContext* c) const { redisFree(c); }
};
struct ReplyFree {
    void operator()(redisReply* r) const { freeReplyObject(r); }
};

std::string text(const redisReply* r) {
    return r != nullptr && (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS)
               ? std::string(r->str, r->len)
               : std::string();
}

// The value after `key` in a flat key/value array, or nullptr.
const redisReply* entry(const redisReply* map, const std::string& key) {
    for (size_t i = 0; i + 1 < map->elements; i += 2) {
        if (text(map->element[i]) == key) return map->element[i + 1];
    }
    return nullptr;
}

}  // namespace

std::vector<FunctionLibrary> function_libraries(int port) {
    std::unique_ptr<redisContext, ContextFree> c(redisConnect("127.0.0.1", port));
    if (!c || c->err) throw std::runtime_error("cannot connect to the test server");
    std::unique_ptr<redisReply, ReplyFree> list(
        static_cast<redisReply*>(redisCommand(c.get(), "FUNCTION LIST WITHCODE")));
    if (!list || list->type != REDIS_REPLY_ARRAY) throw std::runtime_error("FUNCTION LIST failed");
    std::vector<FunctionLibrary> out;
    for (size_t i = 0; i < list->elements; ++i) {
        const redisReply* lib = list->element[i];
        FunctionLibrary l;
        l.name = text(entry(lib, "library_name"));
        l.code = text(entry(lib, "library_code"));
        if (const redisReply* fns = entry(lib, "functions")) {
            for (size_t k = 0; k < fns->elements; ++k) l.functions.push_back(text(entry(fns->element[k], "name")));
        }
        out.push_back(std::move(l));
    }
    return out;
}

std::string marking_library(const std::string& library, const std::vector<std::string>& functions,
                            const std::string& marker) {
    std::string code = "#!lua name=" + library + "\n" +
                       "local function ran(keys, args)\n"
                       "  redis.call('SET', '" + marker + "', '1')\n"
                       "  return { 0 }\n"
                       "end\n";
    for (const std::string& f : functions) code += "redis.register_function('" + f + "', ran)\n";
    return code;
}

}  // namespace kelvane_test
