// ack_log.h -- the members a chaos client wrote and the server acknowledged,
// one line each, appended with a single write(2) right after the
// acknowledgement so that the line survives the client crashing next. The
// test reads every client's log afterwards and looks each member up.
#ifndef KELVANE_TESTS_MODEL_ACK_LOG_H
#define KELVANE_TESTS_MODEL_ACK_LOG_H

#include <optional>
#include <string>
#include <vector>

namespace kelvane_model {

struct Acknowledged {
    std::string key;
    std::string member;
    double score = 0;
    std::optional<std::string> value;
};

class AckLog {
public:
    explicit AckLog(const std::string& path);  // appends; throws when it cannot open
    ~AckLog();
    AckLog(const AckLog&) = delete;
    AckLog& operator=(const AckLog&) = delete;

    // False when the line could not be written.
    bool append(const Acknowledged& entry);

    // Every entry of a log; throws std::runtime_error on a line it cannot read.
    static std::vector<Acknowledged> read(const std::string& path);

private:
    int fd_;
};

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_ACK_LOG_H
