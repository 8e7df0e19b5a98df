// raw_connection.h -- a plain hiredis connection: the raw side of the
// comparison, and the administrative connection that fills data, reads the
// server's command statistics and dumps keys for the equality checks.
#ifndef KELVANE_BENCH_RAW_CONNECTION_H
#define KELVANE_BENCH_RAW_CONNECTION_H

#include <hiredis/hiredis.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kelvane_bench {

struct ReplyDeleter {
    void operator()(redisReply* r) const { freeReplyObject(r); }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

class RawConnection {
public:
    explicit RawConnection(int port);  // 127.0.0.1; throws when it cannot connect
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    redisContext* context() { return ctx_; }

    // One command and its reply; throws on a transport failure or an error
    // reply, so a broken set-up never passes for a measurement.
    Reply command(const std::vector<std::string>& argv);

    // Pipelining on the measured path: queue commands, then take replies.
    void append(int argc, const char** argv, const size_t* lens);
    Reply next_reply();

private:
    redisContext* ctx_ = nullptr;
};

// The CPU time the server's main thread has used (INFO cpu), in seconds.
double server_cpu_seconds(RawConnection& admin);

// The server's version (INFO server), "7.0.15"; "?" when it does not say.
std::string server_version(RawConnection& admin);

// The whole content of a sorted set and its values hash as text, members
// with their exact score texts and values in member order, for comparing
// the two sides' end states.
std::string dump_sorted_set(RawConnection& admin, const std::string& main_key,
                            const std::string& values_key);

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_RAW_CONNECTION_H
