// syscall_counter.cpp -- a perf tracepoint counter on this thread's system
// call entries.
#include "syscall_counter.h"

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

namespace kelvane_bench {
namespace {

// tracefs is mounted in one of two places depending on the system.
long tracepoint_id() {
    for (const char* path : {"/sys/kernel/tracing/events/raw_syscalls/sys_enter/id",
                             "/sys/kernel/debug/tracing/events/raw_syscalls/sys_enter/id"}) {
        std::ifstream in(path);
        long id = -1;
        if (in >> id) return id;
    }
    return -1;
}

}  // namespace

SyscallCounter::SyscallCounter() {
    const long id = tracepoint_id();
    if (id < 0) {
        why_ = "raw_syscalls:sys_enter not readable in tracefs (needs root)";
        return;
    }
    perf_event_attr attr{};
    attr.type = PERF_TYPE_TRACEPOINT;
    attr.size = sizeof attr;
    attr.config = static_cast<std::uint64_t>(id);
    // pid 0, cpu -1: this thread wherever it runs; no inherit, so the
    // redis-server we spawn and its threads are never counted.
    const long fd = syscall(SYS_perf_event_open, &attr, 0, -1, -1, PERF_FLAG_FD_CLOEXEC);
    if (fd < 0) {
        why_ = std::string("perf_event_open: ") + std::strerror(errno);
        return;
    }
    fd_ = static_cast<int>(fd);
}

SyscallCounter::~SyscallCounter() {
    if (fd_ >= 0) close(fd_);
}

std::uint64_t SyscallCounter::read() const {
    if (fd_ < 0) return 0;
    std::uint64_t count = 0;
    if (::read(fd_, &count, sizeof count) != static_cast<ssize_t>(sizeof count)) return 0;
    return count;
}

bool SyscallCounter::calibrate() {
    if (fd_ < 0) return false;
    std::vector<std::uint64_t> empty;
    for (int i = 0; i < 21; ++i) {
        const std::uint64_t before = read();
        empty.push_back(read() - before);
    }
    std::sort(empty.begin(), empty.end());
    overhead_ = empty[empty.size() / 2];
    constexpr std::uint64_t kProbe = 100;
    const std::uint64_t before = read();
    for (std::uint64_t i = 0; i < kProbe; ++i) syscall(SYS_getppid);
    const std::uint64_t counted = read() - before - overhead_;
    if (counted != kProbe) {
        why_ = "counter saw " + std::to_string(counted) + " of " + std::to_string(kProbe) +
               " probe calls";
        close(fd_);
        fd_ = -1;
        return false;
    }
    return true;
}

void syscall_marker(const std::string& text) {
    syscall(SYS_write, -1, text.data(), text.size());
}

}  // namespace kelvane_bench
