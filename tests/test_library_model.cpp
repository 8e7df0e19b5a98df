// test_library_model.cpp -- random operations over the whole public interface
// checked against an in-memory reference model (tests/model/), each seed on a
// private server of its own. By default a few fixed seeds of a few thousand
// operations each; KELVANE_MODEL_OPS asks for more operations and
// KELVANE_MODEL_SEED for one seed (a number, or "random"). A failure names
// the seed and the operation, so setting both reproduces it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "model/model_run.h"
#include "redis_server.h"

namespace kelvane_test {
namespace {

constexpr uint64_t kDefaultOps = 2500;
constexpr uint64_t kServerCheckEvery = 250;
// Pauses of most of a second let expiries run down between calls; a long run
// pauses no more than this many times.
constexpr uint64_t kLeastOpsBetweenPauses = 1250;
constexpr uint64_t kMostPauses = 16;

uint64_t ops_wanted() {
    const char* text = std::getenv("KELVANE_MODEL_OPS");
    return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 10) : kDefaultOps;
}

std::vector<uint64_t> seeds_wanted() {
    const char* text = std::getenv("KELVANE_MODEL_SEED");
    if (text == nullptr || *text == '\0') return {1, 2, 3};
    if (std::string(text) == "random") {
        return {static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()) % 1000000007};
    }
    return {std::strtoull(text, nullptr, 10)};
}

TEST(ReferenceModel, RandomOperationsAgreeWithTheModel) {
    const uint64_t ops = ops_wanted();
    const uint64_t pause_every = std::max(kLeastOpsBetweenPauses, ops / kMostPauses);
    for (const uint64_t seed : seeds_wanted()) {
        std::cout << "[   model  ] seed " << seed << ", " << ops << " operations" << std::endl;
        RedisServer server;
        try {
            kelvane_model::ModelRun run(server.port(), seed);
            for (uint64_t i = 1; i <= ops; ++i) {
                run.step();
                if (i % kServerCheckEvery == 0) run.check_server();
                if (i % pause_every == 0) run.let_time_pass();
            }
            run.check_server();
            run.finish();
        } catch (const kelvane_model::Mismatch& mismatch) {
            ADD_FAILURE() << mismatch.what();
        }
    }
}

}  // namespace
}  // namespace kelvane_test
