// syscall_counter.h -- counts the system calls the calling thread enters,
// through a perf counter on the raw_syscalls:sys_enter tracepoint. It needs
// the tracepoint's id from tracefs and the right to open the counter (root,
// or kernel.perf_event_paranoid low enough); without them it says why and
// the comparison prints no system-call columns.
#ifndef KELVANE_BENCH_SYSCALL_COUNTER_H
#define KELVANE_BENCH_SYSCALL_COUNTER_H

#include <cstdint>
#include <string>

namespace kelvane_bench {

class SyscallCounter {
public:
    SyscallCounter();
    ~SyscallCounter();
    SyscallCounter(const SyscallCounter&) = delete;
    SyscallCounter& operator=(const SyscallCounter&) = delete;

    bool available() const { return fd_ >= 0; }
    const std::string& why_unavailable() const { return why_; }

    // Reading the counter is itself a system call: the read() that closes a
    // window enters the kernel before the count is taken, so every window
    // holds a fixed overhead. calibrate() measures it on empty windows,
    // checks that a window around a known number of getppid() calls counts
    // exactly those, and gives up on the counter when it does not.
    bool calibrate();
    std::uint64_t overhead() const { return overhead_; }

    // The running count; 0 when unavailable.
    std::uint64_t read() const;

private:
    int fd_ = -1;
    std::uint64_t overhead_ = 0;
    std::string why_;
};

// Marker system calls for the strace cross-check (bench/run-compare.sh
// --strace): a write of the text to file descriptor -1, which fails at once
// and shows the text in strace's output.
void syscall_marker(const std::string& text);

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_SYSCALL_COUNTER_H
