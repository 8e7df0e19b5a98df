// server_process.h -- the private redis-server a comparison runs against:
// its own temporary directory, no persistence, loopback only, a free port,
// and started on a chosen CPU so that client and server placement is known.
#ifndef KELVANE_BENCH_SERVER_PROCESS_H
#define KELVANE_BENCH_SERVER_PROCESS_H

#include <sys/types.h>

#include <string>

namespace kelvane_bench {

class ServerProcess {
public:
    // Starts redis-server confined to `cpu` (below 0: wherever this process
    // may run) and waits until it answers; throws std::runtime_error when it
    // cannot.
    explicit ServerProcess(int cpu);
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    // The CPUs the server's main thread may run on, read back from the
    // kernel ("1", "0-1").
    std::string cpus() const;

private:
    bool try_start(int cpu);
    void stop();

    std::string dir_;
    int port_ = 0;
    pid_t pid_ = -1;
};

// Confines the calling thread to one CPU; false when the kernel refuses.
bool pin_to_cpu(int cpu);

// The three load averages, "0.47 0.58 0.66": how busy the machine was.
std::string load_average();

// The CPUs this process may use, in order.
std::string allowed_cpus_text();
int nth_allowed_cpu(int n);  // -1 when there are fewer

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_SERVER_PROCESS_H
