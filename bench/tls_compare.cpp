// tls_compare.cpp -- kelvane_tls_compare: what TLS costs a call. One private
// redis-server serves a plaintext port and a TLS port (certificates made with
// the openssl command in a temporary directory); two libkelvane clients, one
// per port (TLS with verify-full), make the same calls on the same data in
// alternating rounds, and the medians are printed side by side: point reads
// (kv_zscore, kv_zrank) and a 100-member range with scores and values, with
// client and server on one CPU and then on two. Connections are made before
// the rounds, so the handshake is not in the numbers.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelvane.h"
#include "raw_connection.h"
#include "server_process.h"

using namespace kelvane_bench;
using Clock = std::chrono::steady_clock;

namespace {

const char* const kCertificates = R"(set -e
cd "$1"
for n in ca server; do openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out $n.key 2>/dev/null; done
openssl req -x509 -new -key ca.key -out ca.crt -days 2 -subj /CN=bench-ca 2>/dev/null
openssl req -new -key server.key -out server.csr -subj /CN=bench 2>/dev/null
printf 'subjectAltName=IP:127.0.0.1\n' > server.ext
openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 -extfile server.ext \
  -out server.crt 2>/dev/null
)";

struct Call {
    std::string name;
    std::function<bool(kv_client*, kv_mm*, long)> run;  // the i-th call; false when it failed
};

std::vector<Call> calls() {
    return {
        {"kv_zscore", [](kv_client* c, kv_mm* mm, long i) {
             const std::string m = "m" + std::to_string(i % 1000);
             double score = 0;
             char* value = nullptr;
             size_t len = 0;
             const bool ok = kv_zscore(c, "p", 1, m.data(), m.size(), &score, &value, &len) == KV_SUCCESS;
             mm->release(value);
             return ok;
         }},
        {"kv_zrank", [](kv_client* c, kv_mm*, long i) {
             const std::string m = "m" + std::to_string(i % 1000);
             uint32_t rank = 0;
             return kv_zrank(c, "p", 1, m.data(), m.size(), &rank, ZSET_DEFAULT) == KV_SUCCESS;
         }},
        {"kv_zrange 100", [](kv_client* c, kv_mm* mm, long) {
             void **members = nullptr, **values = nullptr;
             size_t count = 0, *members_len = nullptr, *values_len = nullptr;
             double* scores = nullptr;
             const bool ok = kv_zrange(c, "r", 1, 0, -1, &members, &count, &members_len,
                                       ZSET_WITH_SCORES | ZSET_WITH_VALUES, &scores, &values,
                                       &values_len) == KV_SUCCESS && count == 100;
             for (size_t k = 0; k < count; ++k) {
                 mm->release(members[k]);
                 mm->release(values[k]);
             }
             for (void* a : {static_cast<void*>(members), static_cast<void*>(values),
                             static_cast<void*>(members_len), static_cast<void*>(values_len),
                             static_cast<void*>(scores)}) {
                 mm->release(a);
             }
             return ok;
         }},
    };
}

// Calls per second of one side in one round of `seconds`.
double round_rate(const Call& call, kv_client* c, kv_mm* mm, double seconds) {
    long n = 0;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    do {
        if (!call.run(c, mm, n)) throw std::runtime_error(call.name + " failed: " + kv_last_error(c));
        ++n;
    } while (Clock::now() < end);
    return n / std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

int free_port() {
    for (int port = 20000 + getpid() % 20000;; port = 20000 + (port + 7) % 40000) {
        try {
            RawConnection probe(port);
        } catch (const std::exception&) {
            return port;
        }
    }
}

void run_placement(int client_cpu, int server_cpu, const std::string& certs, int rounds, double seconds) {
    ServerProcess server(server_cpu);
    if (!pin_to_cpu(client_cpu)) throw std::runtime_error("cannot pin the client");
    RawConnection admin(server.port());
    const int tls_port = free_port();
    admin.command({"CONFIG", "SET", "tls-cert-file", certs + "/server.crt", "tls-key-file", certs + "/server.key",
                   "tls-ca-cert-file", certs + "/ca.crt", "tls-auth-clients", "no", "tls-port",
                   std::to_string(tls_port)});
    kv_mm* mm = kv_mm_create(nullptr, nullptr, nullptr, 0);
    kv_client* plain = kv_client_create(2, 30, mm, 2);
    kv_client* tls = kv_client_create(2, 30, mm, 2);
    kv_server_options o = KV_SERVER_OPTIONS_INIT;
    const std::string ca = certs + "/ca.crt";
    o.tls_mode = KV_TLS_VERIFY_FULL;
    o.tls_ca_file = ca.c_str();
    if (kv_server_add(plain, "127.0.0.1", server.port(), nullptr) != KV_SUCCESS ||
        kv_server_add_options(tls, "127.0.0.1", tls_port, &o) != KV_SUCCESS) {
        throw std::runtime_error(std::string("cannot register: ") + kv_last_error(tls));
    }
    const std::string value(40, 'v');
    for (int i = 0; i < 1000; ++i) {
        const std::string m = "m" + std::to_string(i);
        kv_zaddval(plain, "p", 1, i / 3.0, m.data(), m.size(), value.data(), value.size(), 0);
        if (i < 100) kv_zaddval(plain, "r", 1, i / 3.0, m.data(), m.size(), value.data(), value.size(), 0);
    }
    std::printf("\n%s (server allowed on CPUs %s)\n",
                client_cpu == server_cpu ? ("one CPU: client and server on CPU " + std::to_string(client_cpu)).c_str()
                                         : ("two CPUs: client on CPU " + std::to_string(client_cpu) +
                                            ", server on CPU " + std::to_string(server_cpu)).c_str(),
                server.cpus().c_str());
    std::printf("%-14s %14s %14s %10s %12s %12s %12s\n", "operation", "plain calls/s", "tls calls/s", "tls/plain",
                "us plain", "us tls", "us added");
    for (const Call& call : calls()) {
        std::vector<double> p, t, ratio;
        for (int r = 0; r < rounds; ++r) {
            // Alternate which side goes first, so that drifts in the machine's load cancel.
            const bool plain_first = r % 2 == 0;
            const double a = round_rate(call, plain_first ? plain : tls, mm, seconds);
            const double b = round_rate(call, plain_first ? tls : plain, mm, seconds);
            p.push_back(plain_first ? a : b);
            t.push_back(plain_first ? b : a);
            ratio.push_back(t.back() / p.back());
        }
        const double mp = median(p), mt = median(t);
        std::printf("%-14s %14.0f %14.0f %10.2f %12.1f %12.1f %12.1f\n", call.name.c_str(), mp, mt, median(ratio),
                    1e6 / mp, 1e6 / mt, 1e6 / mt - 1e6 / mp);
    }
    kv_client_destroy(plain);
    kv_client_destroy(tls);
    kv_mm_destroy(mm);
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 7;
    double seconds = 0.4;
    std::string placement = "both";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--quick") rounds = 3, seconds = 0.1;
        else if (a == "--rounds" && i + 1 < argc) rounds = std::max(1, std::atoi(argv[++i]));
        else if (a == "--duration-ms" && i + 1 < argc) seconds = std::max(1, std::atoi(argv[++i])) / 1000.0;
        else if (a == "--placement" && i + 1 < argc) placement = argv[++i];
        else {
            std::cerr << "usage: kelvane_tls_compare [--quick] [--rounds N] [--duration-ms N]"
                         " [--placement one|two|both]\n";
            return a == "--help" || a == "-h" ? 0 : 2;
        }
    }
    char dir[] = "/tmp/kelvane-tls-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 2;
    const std::string script = std::string(dir) + "/make-certificates.sh";
    if (FILE* f = std::fopen(script.c_str(), "w")) {
        std::fputs(kCertificates, f);
        std::fclose(f);
    }
    if (std::system(("bash " + script + " " + dir).c_str()) != 0) {
        std::cerr << "kelvane_tls_compare: openssl could not make the certificates\n";
        return 2;
    }
    std::printf("kelvane_tls_compare: libkelvane %s, plaintext against TLS (verify-full); %d rounds of %.0f ms per "
                "side, sides alternating; medians\n",
                kv_version(), rounds, seconds * 1000);
    int status = 0;
    try {
        const int a = nth_allowed_cpu(0), b = nth_allowed_cpu(1);
        if (placement != "two") run_placement(a, a, dir, rounds, seconds);
        if (placement != "one" && b >= 0) run_placement(a, b, dir, rounds, seconds);
    } catch (const std::exception& e) {
        std::cerr << "kelvane_tls_compare: " << e.what() << "\n";
        status = 2;
    }
    std::system((std::string("rm -rf ") + dir).c_str());
    return status;
}
