// test_library_chaos.cpp -- several client processes (library_chaos_worker, model/chaos_worker.cpp) run random
// operations while the test restarts the server, freezes and thaws it, flushes its functions and kills its
// client connections. The server saves its data when it stops and loads it when it starts, so a restart loses
// nothing it acknowledged. The server's keys must keep the layout rules along the way and at the end, and no
// client may crash or report a fault (each checks its own acknowledged members once the chaos is over). A few
// seconds of chaos in all; KELVANE_CHAOS_SEED=N changes the seed (printed).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <iostream>
#include <random>
#include <thread>

#include "command_runner.h"
#include "model/model_support.h"
#include "redis_server.h"

namespace kelvane_test {
namespace {

using std::chrono::milliseconds;

// Makes the server save what it holds when it is stopped (the restart loads it again).
void keep_data_on_stop(RedisServer& server) { EXPECT_EQ(server.command({"CONFIG", "SET", "save", "3600 1"}), "OK"); }

TEST(Chaos, ClientsSurviveRestartsFreezesFunctionFlushesAndKilledConnections) {
    const char* seed_text = std::getenv("KELVANE_CHAOS_SEED");
    const uint64_t seed = seed_text != nullptr && *seed_text != '\0' ? std::strtoull(seed_text, nullptr, 10) : 1;
    std::cout << "[   chaos  ] seed " << seed << std::endl;
    std::mt19937_64 rng(seed);
    RedisServer server;
    keep_data_on_stop(server);
    TempDir scratch;
    std::vector<std::future<CommandResult>> clients;
    for (int id = 0; id < 4; ++id) {
        const std::vector<std::string> argv = {KELVANE_CHAOS_WORKER, std::to_string(server.port()), std::to_string(id),
                                               std::to_string(seed * 1000 + id), scratch / "stop"};
        CommandOptions options;
        options.timeout_s = 100;
        clients.push_back(std::async(std::launch::async, run_command, argv, options));
    }

    // Each event three times, in a random order, a fraction of a second apart.
    std::vector<int> events;
    for (int e = 0; e < 12; ++e) events.push_back(e % 4);
    std::shuffle(events.begin(), events.end(), rng);
    std::this_thread::sleep_for(milliseconds(500));
    for (const int e : events) {
        std::this_thread::sleep_for(milliseconds(200 + rng() % 500));
        if (e == 0) {
            server.stop();
            server.start();
            keep_data_on_stop(server);
        } else if (e == 1) {
            server.freeze();  // up to past the clients' one-second wait for an answer
            std::this_thread::sleep_for(milliseconds(300 + rng() % 1200));
            server.thaw();
        } else {
            server.command(e == 2 ? std::vector<std::string>{"FUNCTION", "FLUSH"}
                                  : std::vector<std::string>{"CLIENT", "KILL", "TYPE", "normal"});
            // Every call is atomic on the server, and so is the check: the rules hold between any two calls.
            for (const std::string& fault : kelvane_model::check_layout(server.port())) ADD_FAILURE() << fault;
        }
    }
    std::this_thread::sleep_for(milliseconds(1000));  // calm, so that every client gets through again
    write_file(scratch / "stop", "");

    for (auto& client : clients) {
        const CommandResult r = client.get();
        std::cout << r.out;  // its summary line
        EXPECT_TRUE(r.exit_code == 0 && r.signal == 0)
            << "a client ended with exit status " << r.exit_code << ", signal " << r.signal << ":\n" << r.err;
    }
    for (const std::string& fault : kelvane_model::check_layout(server.port())) ADD_FAILURE() << fault;
}

}  // namespace
}  // namespace kelvane_test
