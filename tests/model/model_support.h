// model_support.h -- what the model test and the chaos test's client processes share: byte strings as readable
// text, a memory manager whose allocator counts its blocks, one call of any range read with any flag combination
// (its result taken apart and every buffer released), and the server's own layout rules.
#ifndef KELVANE_TESTS_MODEL_MODEL_SUPPORT_H
#define KELVANE_TESTS_MODEL_MODEL_SUPPORT_H

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "kelvane.h"

namespace kelvane_model {

// "a\x00b" style, quoted, cut after 40 bytes; "(none)" for no value.
std::string quote(const std::string& bytes);
std::string quote(const std::optional<std::string>& bytes);
// The shortest text that reads back as the same double.
std::string score_text(double score);

// Where pointer out-parameters point before a call: the library must write every one, whatever the status.
extern char junk[64];
// A buffer handed out, released: none, or its bytes, marked when it was left unwritten (junk), is null with a
// length, or lacks the zero byte past its length.
std::optional<std::string> take(kv_mm* mm, void* item, size_t len);

// live() is what the library believes is handed out; blocks() is what really is, the manager's own memory
// included, so it must be 0 after kv_mm_destroy: a buffer freed behind the manager's back, or never, shows there.
class CountingManager {
public:
    CountingManager() : mm_(kv_mm_create(&allocate, &free_block, this, 0)) {}
    ~CountingManager() { destroy(); }
    CountingManager(const CountingManager&) = delete;
    CountingManager& operator=(const CountingManager&) = delete;
    kv_mm* get() const { return mm_; }
    size_t live() const { return mm_ != nullptr ? mm_->live_count(mm_) : 0; }
    // Destroys the manager; returns the allocator's blocks still out.
    long destroy() {
        if (mm_ != nullptr) kv_mm_destroy(mm_);
        mm_ = nullptr;
        return blocks_.load();
    }

private:
    static void* allocate(void* ctx, size_t size) {
        void* p = std::malloc(size != 0 ? size : 1);
        if (p != nullptr) ++static_cast<CountingManager*>(ctx)->blocks_;
        return p;
    }
    static void free_block(void* ctx, void* p) {
        if (p != nullptr) --static_cast<CountingManager*>(ctx)->blocks_;
        std::free(p);
    }
    std::atomic<long> blocks_{0};
    kv_mm* mm_;
};

struct RangeQuery {
    bool by_score = false;
    int32_t start = 0, stop = -1;  // by rank
    double min = 0, max = 0;       // by score
    int32_t flags = ZSET_DEFAULT;
    int32_t offset = 0, count = -1;     // passed with ZSET_WITH_LIMIT
    std::optional<std::string> suffix;  // set: kv_zrange_whole / kv_zrangebyscore_whole
    // false for calls the library must refuse before it reads an optional argument: none is passed.
    bool pass_optional = true;
};

struct RangeResult {
    int32_t status = -1;
    std::vector<std::string> members;
    std::vector<double> scores;                      // when asked for
    std::vector<std::optional<std::string>> values;  // when asked for
    // What was wrong with the shape of the result (arrays unwritten, or set on an empty result), or empty.
    std::string fault;
};

RangeResult read_range(kv_client* client, kv_mm* mm, const std::string& key, const RangeQuery& q);
// The call as text, for failure messages.
std::string describe(const std::string& key, const RangeQuery& q);
// The result as text: status, fault, then each member with its score and value where asked for.
std::string show(const RangeResult& r, int32_t flags);

// The server's own view, checked against docs/data-layout.md in one script, so that nothing expires while it
// looks: every key is a main key kv{E} (a sorted or plain set) or its values hash kv{E}:v, and a values hash
// belongs to a sorted set, names only its members and expires in the same millisecond. Returns the faults.
std::vector<std::string> check_layout(int port);

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_MODEL_SUPPORT_H
