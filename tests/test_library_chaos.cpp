// test_library_chaos.cpp -- several client processes (library_chaos_worker,
// each with a kelvane client of its own) run random operations while the test
// restarts the server, freezes and thaws it, flushes its functions and kills
// client connections. Afterwards no client may have crashed or seen a status
// other than the expected and the transport ones, the server's keys must
// keep the layout rules (a values hash names only members of its set and
// expires with it), and every member a client had acknowledged must be there
// with its score and value, after one more restart. KELVANE_CHAOS_SEED
// changes the seed (printed).
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <random>
#include <thread>

#include "model/ack_log.h"
#include "model/byte_text.h"
#include "model/child_process.h"
#include "model/counting_manager.h"
#include "model/durable_server.h"
#include "model/layout_check.h"
#include "model/raw_redis.h"

namespace kelvane_test {
namespace {

using namespace kelvane_model;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kClients = 4;
constexpr int kRoundsOfEachEvent = 3;

enum class Event { Restart, Freeze, FlushFunctions, KillClients };

const char* name_of(Event e) {
    switch (e) {
        case Event::Restart: return "restart";
        case Event::Freeze: return "freeze";
        case Event::FlushFunctions: return "FUNCTION FLUSH";
        default: return "CLIENT KILL TYPE normal";
    }
}

// A temporary directory for the clients' logs and the stop file, removed at the end.
struct ScratchDir {
    std::string path;
    ScratchDir() {
        char tmpl[] = "/tmp/kelvane-chaos-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
        path = tmpl;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

uint64_t seed_wanted() {
    const char* text = std::getenv("KELVANE_CHAOS_SEED");
    return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 10) : 1;
}

void cause(Event e, DurableServer& server, std::mt19937_64& rng) {
    switch (e) {
        case Event::Restart:
            server.stop();
            server.start();
            break;
        case Event::Freeze:
            // Up to past the clients' one-second wait for an answer.
            server.freeze();
            std::this_thread::sleep_for(milliseconds(300 + rng() % 1200));
            server.thaw();
            break;
        case Event::FlushFunctions:
            RawRedis(server.port()).run({"FUNCTION", "FLUSH"});
            break;
        case Event::KillClients:
            RawRedis(server.port()).run({"CLIENT", "KILL", "TYPE", "normal"});
            break;
    }
}

// Every acknowledged member, looked up through a fresh client: what is
// missing or different, one line each (at most 20).
std::vector<std::string> missing_acknowledged(int port, const std::vector<Acknowledged>& all) {
    std::vector<std::string> faults;
    CountingManager mm;
    kv_client* client = kv_client_create(1, 2, mm.get(), 2);
    EXPECT_EQ(kv_server_add(client, "127.0.0.1", static_cast<uint32_t>(port), nullptr), KV_SUCCESS);
    for (const Acknowledged& a : all) {
        double score = 0;
        char* value = nullptr;
        size_t len = 0;
        const int32_t status = kv_zscore(client, a.key.data(), a.key.size(), a.member.data(), a.member.size(),
                                         &score, &value, &len);
        const std::optional<std::string> got = value ? std::optional(std::string(value, len)) : std::nullopt;
        mm.get()->release(value);
        if ((status != KV_SUCCESS || !(score == a.score) || got != a.value) && faults.size() < 20) {
            faults.push_back(quoted(a.member) + " in " + quoted(a.key) + ": status " + std::to_string(status) +
                             ", score " + score_text(score) + " (acknowledged " + score_text(a.score) + "), value " +
                             quoted(got) + " (acknowledged " + quoted(a.value) + ")");
        }
    }
    kv_client_destroy(client);
    EXPECT_EQ(mm.destroy(), 0) << "allocator blocks left by the checking client";
    return faults;
}

TEST(Chaos, ClientsSurviveRestartsFreezesFunctionFlushesAndKilledConnections) {
    const uint64_t seed = seed_wanted();
    const auto began = Clock::now();
    // Progress lines carry the seconds since the start.
    auto note = [&](const std::string& what) {
        const double s = std::chrono::duration<double>(Clock::now() - began).count();
        std::cout << "[   chaos  ] " << std::fixed << std::setprecision(1) << s << " s: " << what << std::endl;
    };
    note("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    ScratchDir scratch;
    DurableServer server;
    const std::string stop_file = scratch.path + "/stop";

    std::vector<std::unique_ptr<ChildProcess>> clients;
    for (int id = 0; id < kClients; ++id) {
        const std::string base = scratch.path + "/client-" + std::to_string(id);
        clients.push_back(std::make_unique<ChildProcess>(
            std::vector<std::string>{KELVANE_CHAOS_WORKER, std::to_string(server.port()), std::to_string(id),
                                     std::to_string(seed * 1000 + id), stop_file, base + ".acks"},
            base + ".log"));
    }

    std::vector<Event> events;
    for (int round = 0; round < kRoundsOfEachEvent; ++round) {
        for (Event e : {Event::Restart, Event::Freeze, Event::FlushFunctions, Event::KillClients}) events.push_back(e);
    }
    std::shuffle(events.begin(), events.end(), rng);
    std::this_thread::sleep_for(milliseconds(500));
    for (Event e : events) {
        std::this_thread::sleep_for(milliseconds(200 + rng() % 500));
        note(name_of(e));
        cause(e, server, rng);
    }
    std::this_thread::sleep_for(milliseconds(1000));  // calm, so that every client gets through again
    { std::ofstream(stop_file).put('\n'); }
    note("clients told to stop");

    const auto deadline = Clock::now() + std::chrono::seconds(40);
    std::vector<Acknowledged> acknowledged;
    for (int id = 0; id < kClients; ++id) {
        ChildProcess& c = *clients[id];
        if (!c.wait_until(deadline)) c.kill();
        const std::string log = c.log_tail();
        if (c.exited_cleanly()) {
            std::cout << log;  // its summary line
        } else {
            ADD_FAILURE() << "client " << id << " ended with " << c.how_it_ended() << ":\n" << log;
        }
        const std::vector<Acknowledged> own = AckLog::read(scratch.path + "/client-" + std::to_string(id) + ".acks");
        EXPECT_FALSE(own.empty()) << "client " << id << " never had a write acknowledged";
        acknowledged.insert(acknowledged.end(), own.begin(), own.end());
    }

    // Once more through the append-only file: everything acknowledged was on disk.
    note("clients ended; restarting the server");
    server.stop();
    server.start();
    note("server restarted; checking");
    const LayoutReport layout = check_layout(server.port());
    for (const std::string& fault : layout.faults) ADD_FAILURE() << fault;
    note(std::to_string(layout.main_keys) + " keys, " + std::to_string(layout.value_hashes) + " values hashes, " +
         std::to_string(acknowledged.size()) + " acknowledged members");
    for (const std::string& fault : missing_acknowledged(server.port(), acknowledged)) {
        ADD_FAILURE() << "acknowledged member lost or changed: " << fault;
    }
    note("done");
}

}  // namespace
}  // namespace kelvane_test
