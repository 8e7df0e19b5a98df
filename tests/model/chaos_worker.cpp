// chaos_worker.cpp -- one client process of the chaos test
// (test_library_chaos.cpp): its own kelvane client against the test's server
// until the test creates the stop file. Exit status 0 when everything it saw
// was right; see ChaosExit for the others.
//
// usage: library_chaos_worker PORT ID SEED STOP_FILE ACK_FILE
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "chaos_client.h"

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s PORT ID SEED STOP_FILE ACK_FILE\n", argv[0]);
        return 1;
    }
    kelvane_model::ChaosConfig config;
    config.port = std::atoi(argv[1]);
    config.id = std::atoi(argv[2]);
    config.seed = std::strtoull(argv[3], nullptr, 10);
    config.stop_file = argv[4];
    config.ack_file = argv[5];
    try {
        kelvane_model::ChaosClient client(config);
        return client.run();
    } catch (const kelvane_model::ChaosFailure& failure) {
        std::fprintf(stderr, "chaos client %d: %s\n", config.id, failure.message.c_str());
        return failure.exit_status;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "chaos client %d: %s\n", config.id, e.what());
        return kelvane_model::kChaosUnexpected;
    }
}
