// test_examples.cpp -- the programs in examples/ run as their users would run them, against a private server, and
// print exactly what their comments promise.
#include <gtest/gtest.h>

#include <string>

#include "command_runner.h"
#include "redis_server.h"

namespace kelvane_test {
namespace {

// The leaderboard: players added at once and one by one with their teams, points won, the top three with scores
// and teams, a score range, a player's team, points and place, the week's time-to-live kept by a plain write and
// replaced by a committed one, and a player removed. Run twice, it starts afresh each time.
TEST(Examples, LeaderboardPrintsItsBoard) {
    RedisServer server;
    const std::string board =
        "6 players on leaderboard:week\n"
        "bob wins 30 points: 125\n"
        "top 3:\n"
        "  1. cy (red) 130\n"
        "  2. bob (blue) 125\n"
        "  3. ada (red) 120\n"
        "90 to 110 points: dee 95, fay 101\n"
        "dee plays for green: 95 points, place 5 of 6\n"
        "the board expires in 7 days\n"
        "eve wins 5 points: 85; the board now expires in 14 days\n"
        "eve leaves: 5 players\n";
    for (int run = 1; run <= 2; ++run) {
        const CommandResult r = run_command({KELVANE_LEADERBOARD, "127.0.0.1", std::to_string(server.port())});
        EXPECT_EQ(r.exit_code, 0) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out, board) << "run " << run;
    }

    server.stop();  // no server: a clear status, not a crash
    const CommandResult r = run_command({KELVANE_LEADERBOARD, "127.0.0.1", std::to_string(server.port())});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "leaderboard: kv_server_add answered status 101\n");
}

}  // namespace
}  // namespace kelvane_test
