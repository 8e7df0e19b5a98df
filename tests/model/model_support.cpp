// model_support.cpp -- quoting, range calls with their variadic tails, and the layout check.
#include "model_support.h"

#include <hiredis/hiredis.h>

#include <cstdio>
#include <sstream>

namespace kelvane_model {
namespace {

std::string escaped(const std::string& bytes, size_t shown) {
    std::string out = "\"";
    for (size_t i = 0; i < bytes.size() && i < shown; ++i) {
        const unsigned char c = static_cast<unsigned char>(bytes[i]);
        char esc[8];
        std::snprintf(esc, sizeof esc, c == '"' || c == '\\' ? "\\%c" : c >= 0x20 && c < 0x7f ? "%c" : "\\x%02x", c);
        out += esc;
    }
    out += '"';
    if (bytes.size() > shown) out += "...(" + std::to_string(bytes.size()) + " bytes)";
    return out;
}

void* const kJunk = junk;

struct Outs {
    void** m = static_cast<void**>(kJunk);
    size_t n = 9;
    size_t* ml = static_cast<size_t*>(kJunk);
    double* s = static_cast<double*>(kJunk);
    void** v = static_cast<void**>(kJunk);
    size_t* vl = static_cast<size_t*>(kJunk);
};

// Calls call(optional arguments...) with the tail the flags ask for, through the real C calling convention:
// offset and count, the score array, then the value and value-length arrays.
template <class Call>
int32_t with_tail(const Call& call, const RangeQuery& q, Outs& o) {
    if (!q.pass_optional) return call();
    const bool s = q.flags & ZSET_WITH_SCORES, v = q.flags & ZSET_WITH_VALUES;
    if (q.flags & ZSET_WITH_LIMIT) {
        if (s && v) return call(q.offset, q.count, &o.s, &o.v, &o.vl);
        if (s) return call(q.offset, q.count, &o.s);
        return v ? call(q.offset, q.count, &o.v, &o.vl) : call(q.offset, q.count);
    }
    if (s && v) return call(&o.s, &o.v, &o.vl);
    if (s) return call(&o.s);
    return v ? call(&o.v, &o.vl) : call();
}

int32_t call_range(kv_client* c, const std::string& key, const RangeQuery& q, Outs& o) {
    const char *k = key.data(), *sfx = q.suffix ? q.suffix->data() : nullptr;
    const size_t kl = key.size(), sl = q.suffix ? q.suffix->size() : 0;
    return with_tail([&](auto... tail) {
        if (!q.by_score && !q.suffix) return kv_zrange(c, k, kl, q.start, q.stop, &o.m, &o.n, &o.ml, q.flags, tail...);
        if (!q.by_score) {
            return kv_zrange_whole(c, k, kl, q.start, q.stop, &o.m, &o.n, &o.ml, sfx, sl, q.flags, tail...);
        }
        if (!q.suffix) return kv_zrangebyscore(c, k, kl, q.min, q.max, &o.m, &o.n, &o.ml, q.flags, tail...);
        return kv_zrangebyscore_whole(c, k, kl, q.min, q.max, &o.m, &o.n, &o.ml, sfx, sl, q.flags, tail...);
    }, q, o);
}

const char* const kLayoutScript = R"(
local faults = {}
local function fault(text) faults[#faults + 1] = text end
for _, key in ipairs(redis.call('KEYS', '*')) do
  local close = string.find(key, '}', 1, true)
  local rest = close and string.sub(key, close + 1)
  if string.sub(key, 1, 3) ~= 'kv{' or not close or (rest ~= '' and rest ~= ':v') then
    fault('a key outside kelvane names: ' .. key)
  elseif rest == '' then
    local t = redis.call('TYPE', key)['ok']
    if t ~= 'zset' and t ~= 'set' then fault('main key ' .. key .. ' is a ' .. t) end
  else
    local main = string.sub(key, 1, close)
    local t, mt = redis.call('TYPE', key)['ok'], redis.call('TYPE', main)['ok']
    if t ~= 'hash' or mt ~= 'zset' then
      fault('values hash ' .. key .. ' is a ' .. t .. ' beside a main key of type ' .. mt)
    else
      for _, m in ipairs(redis.call('HKEYS', key)) do
        if not redis.call('ZSCORE', main, m) then fault('values hash ' .. key .. ' names non-member ' .. m) end
      end
      local at_main, at_hash = redis.call('PEXPIRETIME', main), redis.call('PEXPIRETIME', key)
      if at_main ~= at_hash then
        fault('values hash ' .. key .. ' expires at ' .. at_hash .. ', its set at ' .. at_main)
      end
    end
  end
end
return faults)";

}  // namespace

alignas(16) char junk[64] = "junk";

std::optional<std::string> take(kv_mm* mm, void* item, size_t len) {
    if (item == junk) return "(unwritten)";
    if (item == nullptr) return len == 0 ? std::nullopt : std::optional("(null of length " + std::to_string(len) + ")");
    const char* p = static_cast<const char*>(item);
    std::string bytes(p, len);
    if (p[len] != '\0') bytes += "(unterminated)";
    mm->release(item);
    return bytes;
}

std::string quote(const std::string& bytes) { return escaped(bytes, 40); }

std::string quote(const std::optional<std::string>& bytes) { return bytes ? quote(*bytes) : "(none)"; }

std::string score_text(double score) {
    char buf[64];
    for (int digits = 1; digits <= 17; ++digits) {
        std::snprintf(buf, sizeof buf, "%.*g", digits, score);
        if (std::strtod(buf, nullptr) == score) break;
    }
    return buf;
}

RangeResult read_range(kv_client* client, kv_mm* mm, const std::string& key, const RangeQuery& q) {
    Outs o;
    RangeResult r;
    r.status = call_range(client, key, q, o);
    const bool scores = q.pass_optional && (q.flags & ZSET_WITH_SCORES);
    const bool values = q.pass_optional && (q.flags & ZSET_WITH_VALUES);
    // The arrays the call was asked for; the others stand in as the members' array.
    const std::vector<void*> asked = {o.m, o.ml, scores ? static_cast<void*>(o.s) : o.m, values ? o.v : o.m,
                                      values ? static_cast<void*>(o.vl) : o.m};
    if (r.status != KV_SUCCESS || o.n == 0) {
        for (const void* a : asked) {
            if (o.n != 0 || a != nullptr) r.fault = "an empty result or a failure left a count or an array set";
        }
        return r;
    }
    for (const void* a : asked) {
        if (a == nullptr || a == kJunk) r.fault = "a result with an array missing or unwritten";
    }
    if (!r.fault.empty()) return r;  // nothing safe to read or release
    for (size_t k = 0; k < o.n; ++k) {
        r.members.push_back(take(mm, o.m[k], o.ml[k]).value_or("(null)"));
        if (scores) r.scores.push_back(o.s[k]);
        if (values) r.values.push_back(take(mm, o.v[k], o.vl[k]));
    }
    mm->release(o.m);
    mm->release(o.ml);
    if (scores) mm->release(o.s);
    if (values) mm->release(o.v);
    if (values) mm->release(o.vl);
    return r;
}

std::string describe(const std::string& key, const RangeQuery& q) {
    std::ostringstream out;
    out << (q.by_score ? "kv_zrangebyscore" : "kv_zrange") << (q.suffix ? "_whole(" : "(") << quote(key) << ", ";
    if (q.by_score) {
        out << score_text(q.min) << ", " << score_text(q.max);
    } else {
        out << q.start << ", " << q.stop;
    }
    if (q.suffix) out << ", suffix " << quote(*q.suffix);
    out << ", flags 0x" << std::hex << q.flags << std::dec;
    if (q.pass_optional && (q.flags & ZSET_WITH_LIMIT)) out << ", offset " << q.offset << ", count " << q.count;
    if (!q.pass_optional) out << ", no optional arguments";
    return out.str() + ")";
}

std::string show(const RangeResult& r, int32_t flags) {
    std::string out = "status " + std::to_string(r.status) + (r.fault.empty() ? "" : " (" + r.fault + ")") + ", " +
                      std::to_string(r.members.size()) + " members:";
    for (size_t k = 0; k < r.members.size(); ++k) {
        out += " " + quote(r.members[k]);
        if ((flags & ZSET_WITH_SCORES) && k < r.scores.size()) out += "@" + score_text(r.scores[k]);
        if ((flags & ZSET_WITH_VALUES) && k < r.values.size()) out += "=" + quote(r.values[k]);
    }
    return out;
}

std::vector<std::string> check_layout(int port) {
    std::vector<std::string> faults;
    redisContext* c = redisConnect("127.0.0.1", port);
    auto* r = c != nullptr && c->err == 0 ? static_cast<redisReply*>(redisCommand(c, "EVAL %s 0", kLayoutScript))
                                          : nullptr;
    if (r == nullptr || r->type != REDIS_REPLY_ARRAY) {
        faults.push_back("the layout script did not run" +
                         (r != nullptr && r->type == REDIS_REPLY_ERROR ? ": " + std::string(r->str) : ""));
    } else {
        for (size_t i = 0; i < r->elements; ++i) {
            faults.push_back(escaped(std::string(r->element[i]->str, r->element[i]->len), 400));
        }
    }
    if (r != nullptr) freeReplyObject(r);
    if (c != nullptr) redisFree(c);
    return faults;
}

}  // namespace kelvane_model
