// ack_log.cpp -- lines of key, member, score (C hex float, exact) and value
// ("-" for none); bytes as "x" and their hex, so that empty ones still make a
// field.
#include "ack_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "byte_text.h"

namespace kelvane_model {

AckLog::AckLog(const std::string& path) : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {
    if (fd_ < 0) throw std::runtime_error("cannot open " + path);
}

AckLog::~AckLog() { ::close(fd_); }

bool AckLog::append(const Acknowledged& entry) {
    char score[64];
    std::snprintf(score, sizeof score, "%a", entry.score);
    const std::string line = "x" + to_hex(entry.key) + " x" + to_hex(entry.member) + " " + score + " " +
                             (entry.value ? "x" + to_hex(*entry.value) : "-") + "\n";
    return ::write(fd_, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

std::vector<Acknowledged> AckLog::read(const std::string& path) {
    std::ifstream in(path);
    std::vector<Acknowledged> entries;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string key, member, score, value;
        if (!(fields >> key >> member >> score >> value)) throw std::runtime_error("unreadable line in " + path);
        Acknowledged entry;
        entry.key = from_hex(key.substr(1));
        entry.member = from_hex(member.substr(1));
        entry.score = std::strtod(score.c_str(), nullptr);
        if (value != "-") entry.value = from_hex(value.substr(1));
        entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace kelvane_model
