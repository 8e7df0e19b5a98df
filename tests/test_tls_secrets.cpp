// The password leaves no trace: once the client that used it is destroyed, no byte sequence of it is left anywhere
// in the process's memory (read through /proc/self/mem), after a TLS login and calls. The check runs in a child
// process that makes the password itself, so that no copy of the test runner's counts; it keeps only a masked form
// to search with, and it first finds the live client's own copy, to show that the search would see one.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "tls_fixture.h"

namespace kelvane_test {
namespace {

constexpr size_t kLength = 64;
// The search looks for the password's second half: an allocator writes its own pointers over the start of a block it
// takes back, and the rest of an unwiped copy stays.
constexpr size_t kTail = kLength / 2;
constexpr unsigned char kMask = 0xA5;

// Exit codes of the child.
enum : int { kGone = 0, kLeft = 1, kNotSeenWhileLive = 2, kSetUpFailed = 3 };

// How often the second half of the masked password occurs in the process's readable memory. The scratch buffer is
// wiped after every chunk, so that it never keeps what it read.
int occurrences(const unsigned char* masked, unsigned char* scratch, size_t scratch_size) {
    const int maps = open("/proc/self/maps", O_RDONLY), mem = open("/proc/self/mem", O_RDONLY);
    static char table[1 << 20];
    const ssize_t got = read(maps, table, sizeof table - 1);
    close(maps);
    int found = 0;
    table[got > 0 ? got : 0] = '\0';
    for (char* line = strtok(table, "\n"); line != nullptr; line = strtok(nullptr, "\n")) {
        unsigned long from = 0, to = 0;
        char perms[5] = {};
        // Huge mappings are a sanitizer's reserved shadow, never data.
        if (sscanf(line, "%lx-%lx %4s", &from, &to, perms) != 3 || perms[0] != 'r' || to - from > (1ul << 30)) {
            continue;
        }
        for (unsigned long at = from; at < to; at += scratch_size - kTail) {
            const size_t want = std::min<unsigned long>(scratch_size, to - at);
            const ssize_t n = pread(mem, scratch, want, static_cast<off_t>(at));
            for (ssize_t i = 0; i + static_cast<ssize_t>(kTail) <= n; ++i) {
                size_t k = 0;
                while (k < kTail && (scratch[i + k] ^ kMask) == masked[kLength - kTail + k]) ++k;
                found += k == kTail;
            }
            explicit_bzero(scratch, scratch_size);
            if (want < scratch_size) break;
        }
    }
    close(mem);
    return found;
}

// Sends a command written into buffer (len bytes) to the admin port and waits for +OK; wipes the buffer.
bool send_wiped(int port, char* buffer, size_t len) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr = loopback(port);
    char reply[8] = {};
    const bool ok = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 &&
                    send(fd, buffer, len, 0) == static_cast<ssize_t>(len) && recv(fd, reply, 5, MSG_WAITALL) == 5 &&
                    std::memcmp(reply, "+OK\r\n", 5) == 0;
    explicit_bzero(buffer, len);
    close(fd);
    return ok;
}

// The child: a password from the kernel's random bytes, a server user with it, a TLS client that logs in with it
// and makes calls, then the search before and after the client is destroyed.
int child(int admin_port, int tls_port, const char* ca) {
    unsigned char masked[kLength];
    char password[kLength + 1];
    const int random = open("/dev/urandom", O_RDONLY);
    if (read(random, masked, kLength) != static_cast<ssize_t>(kLength)) return kSetUpFailed;
    close(random);
    for (size_t i = 0; i < kLength; ++i) {
        password[i] = "abcdefghijklmnopqrstuvwxyz0123456789"[masked[i] % 36];
        masked[i] = static_cast<unsigned char>(password[i]) ^ kMask;
    }
    password[kLength] = '\0';
    char command[256];
    const int len = snprintf(command, sizeof command, "*8\r\n$3\r\nACL\r\n$7\r\nSETUSER\r\n$6\r\nholder\r\n$2\r\non\r\n"
                             "$%zu\r\n>%s\r\n$2\r\n~*\r\n$2\r\n&*\r\n$5\r\n+@all\r\n", kLength + 1, password);
    if (!send_wiped(admin_port, command, static_cast<size_t>(len))) return kSetUpFailed;

    kv_mm* mm = kv_mm_create(nullptr, nullptr, nullptr, 0);
    kv_client* c = kv_client_create(1, 2, mm, 2);
    kv_server_options o = KV_SERVER_OPTIONS_INIT;
    o.user = "holder";
    o.password = password;
    o.tls_mode = KV_TLS_VERIFY_FULL;
    o.tls_ca_file = ca;
    const int32_t added = kv_server_add_options(c, "127.0.0.1", static_cast<uint32_t>(tls_port), &o);
    explicit_bzero(password, sizeof password);
    uint32_t n = 0;
    if (added != KV_SUCCESS || kv_zadd(c, "k", 1, 1, "m", 1, 0) != KV_SUCCESS ||
        kv_zcard(c, "k", 1, &n) != KV_SUCCESS) {
        return kSetUpFailed;
    }
    const size_t scratch_size = 1 << 20;
    void* scratch = mmap(nullptr, scratch_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto* bytes = static_cast<unsigned char*>(scratch);
    if (occurrences(masked, bytes, scratch_size) == 0) return kNotSeenWhileLive;
    kv_client_destroy(c);
    kv_mm_destroy(mm);
    return occurrences(masked, bytes, scratch_size) == 0 ? kGone : kLeft;
}

using Secrets = TlsTest;

TEST_F(Secrets, PasswordIsGoneFromProcessMemoryOnceTheClientIsDestroyed) {
    const auto server = tls_server(certs_.server());
    fflush(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) _exit(child(server->admin_port(), server->port(), ca_.c_str()));
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "the child died of signal " << WTERMSIG(status);
    switch (WEXITSTATUS(status)) {
        case kGone: break;
        case kLeft: ADD_FAILURE() << "the password is still in memory after kv_client_destroy"; break;
        case kNotSeenWhileLive: ADD_FAILURE() << "the search did not find the live client's copy"; break;
        default: ADD_FAILURE() << "the child could not set up: exit " << WEXITSTATUS(status);
    }
}

}  // namespace
}  // namespace kelvane_test
