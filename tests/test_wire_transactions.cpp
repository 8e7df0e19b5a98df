// The native reads against a server that misbehaves on the wire, played by the scripted fake server: transactions
// whose EXEC holds a reply too many or too few, a command not queued, replies of the wrong kind inside EXEC, an
// EXEC answered nil though nothing was watched, a transaction answered twice, bytes after it, and a count inside
// EXEC that its bytes do not back. No call hands out data that is not its own reply's; a connection out of step
// is dropped (KV_SERVER_ERROR) and the next call opens another.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "fake_server.h"
#include "kelvane.h"
#include "wire_fixture.h"

namespace kelvane_test {
namespace {

using namespace std::chrono_literals;

// What a sound server answers to each native command of the reads: the score of a member is the member's own text
// ("7" scores 7) and its value "v"+member; kv_zcard counts 3; a range is {"a": 1, value "va"}.
std::string native_answer(const Command& c) {
    if (std::string routine = routine_answer(c); !routine.empty()) return routine;
    const std::string& op = c[0];
    if (op == "ZSCORE") return bulk(c[2]);
    if (op == "HGET") return bulk("v" + c[2]);
    if (op == "ZRANK" || op == "ZREVRANK") return integer(0);
    if (op == "EXISTS" || op == "HLEN") return integer(1);
    if (op == "ZCARD") return integer(3);
    if (op == "ZRANGE") {
        const bool scores = c.back() == "WITHSCORES";
        return array(scores ? std::vector{bulk("a"), bulk("1")} : std::vector{bulk("a")});
    }
    if (op == "HGETALL") return array({bulk("a"), bulk("va")});
    if (op == "HMGET") return array({bulk("va")});
    if (op == "WATCH" || op == "UNWATCH") return "+OK\r\n";
    return "-ERR the fake server has no script for " + op + "\r\n";
}

// A fake server's script that keeps one transaction at a time: MULTI, +QUEUED for each command (its answer kept),
// EXEC with the answers kept. misanswer(command, sound answer), while armed, replaces the answer of the first
// command it changes (for a queued command: the +QUEUED), and then disarms.
class Transactions {
public:
    using Misanswer = std::function<std::string(const Command&, const std::string&)>;

    std::string operator()(const Command& c) {
        std::string sound;
        if (c[0] == "HELLO") {
            in_multi_ = false;  // a new connection, whatever the last one left unfinished
            sound = native_answer(c);
        } else if (c[0] == "MULTI") {
            in_multi_ = true;
            queued_.clear();
            sound = "+OK\r\n";
        } else if (c[0] == "EXEC") {
            in_multi_ = false;
            sound = array(queued_);
        } else if (in_multi_) {
            queued_.push_back(native_answer(c));
            sound = "+QUEUED\r\n";
        } else {
            sound = native_answer(c);
        }
        if (!armed_ || c[0] == "HELLO" || c[0] == "PING") return sound;
        std::string answer = misanswer_(c, sound);
        if (answer != sound) armed_ = false;
        return answer;
    }
    void arm(Misanswer m) {
        misanswer_ = std::move(m);
        armed_ = true;
    }

private:
    bool in_multi_ = false;
    std::vector<std::string> queued_;
    Misanswer misanswer_;
    std::atomic<bool> armed_{false};
};

class NativeWire : public WireTest {
protected:
    kv_client* client_of(const FakeServer& server) { return WireTest::client_of(server, "native"); }

    // kv_zrange of everything with scores and values, one member's score; the result released.
    int32_t zrange(kv_client* c, double* first_score = nullptr) {
        void** m = nullptr;
        size_t n = 0, *ml = nullptr, *vl = nullptr;
        double* s = nullptr;
        void** v = nullptr;
        const int32_t status = kv_zrange(c, "k", 1, 0, -1, &m, &n, &ml, ZSET_WITH_SCORES | ZSET_WITH_VALUES, &s, &v, &vl);
        if (first_score != nullptr) *first_score = s != nullptr ? s[0] : 0;
        for (size_t k = 0; k < n; ++k) mm_->release(m[k]), mm_->release(v[k]);
        for (void* a : {static_cast<void*>(m), static_cast<void*>(ml), static_cast<void*>(s), static_cast<void*>(v),
                        static_cast<void*>(vl)}) {
            mm_->release(a);
        }
        return status;
    }

    // Runs call (which must answer KV_SERVER_ERROR) against a server that misanswers it, then shows that the
    // connection was dropped: the next call, answered soundly, opens a new one and works.
    void expect_dropped(const char* what, const std::function<int32_t(kv_client*)>& call, Transactions::Misanswer m) {
        SCOPED_TRACE(what);
        Transactions script;
        FakeServer server([&](const Command& c) { return script(c); });
        kv_client* c = client_of(server);
        double score = 0;
        ASSERT_EQ(zscore(c, "2", &score), KV_SUCCESS);
        script.arm(std::move(m));
        EXPECT_EQ(call(c), KV_SERVER_ERROR);
        const int before = server.connections();
        EXPECT_EQ(zscore(c, "3", &score), KV_SUCCESS);
        EXPECT_EQ(score, 3);
        EXPECT_EQ(server.connections(), before + 1) << "the connection that was out of step is used again";
    }
};

// Replaces the answer of every command named op, as long as the script is armed.
Transactions::Misanswer on(const std::string& op, std::function<std::string(const std::string&)> replace) {
    return [op, replace](const Command& c, const std::string& sound) { return c[0] == op ? replace(sound) : sound; };
}

TEST_F(NativeWire, ATransactionOfTheWrongShapeIsAServerErrorAndItsConnectionIsDropped) {
    double score = 0;
    uint32_t n = 0;
    const auto zscore_call = [&](kv_client* c) { return zscore(c, "1", &score); };
    const auto zrange_call = [&](kv_client* c) { return zrange(c); };
    const auto exec_of = [](std::vector<std::string> replies) { return [=](const std::string&) { return array(replies); }; };
    expect_dropped("EXEC with a reply too many", zscore_call, on("EXEC", exec_of({bulk("1"), nil(), nil()})));
    expect_dropped("EXEC with a reply too few", zscore_call, on("EXEC", exec_of({bulk("1")})));
    expect_dropped("a command not queued", zscore_call, on("HGET", [](const std::string&) { return "+OK\r\n"; }));
    expect_dropped("a status line for EXEC's array", zscore_call, on("EXEC", [](const std::string&) { return "+OK\r\n"; }));
    expect_dropped("EXEC answered nil, though nothing was watched", zscore_call,
                   on("EXEC", [](const std::string&) { return nil(); }));
    expect_dropped("a number for a score", zscore_call, on("EXEC", exec_of({integer(1), nil()})));
    expect_dropped("an array for a value", zscore_call, on("EXEC", exec_of({bulk("1"), array({nil()})})));
    expect_dropped("an array for a count", [&](kv_client* c) { return kv_zcard(c, "k", 1, &n); },
                   on("ZCARD", [](const std::string&) { return array({integer(3)}); }));
    expect_dropped("a member without its score", zrange_call,
                   on("EXEC", exec_of({array({bulk("a")}), array({}), integer(1)})));
    expect_dropped("a values hash of an odd length", zrange_call,
                   on("EXEC", exec_of({array({bulk("a"), bulk("1")}), array({bulk("a")}), integer(1)})));
    expect_dropped("EXEC answered twice", zscore_call, on("EXEC", [](const std::string& sound) { return sound + sound; }));
    expect_dropped("part of a reply more", zscore_call, on("EXEC", [](const std::string& sound) { return sound + "$5\r\nab"; }));
}

// A transaction whose whole reply comes twice (the copy right behind it, or ahead of the next call's) is never
// taken for the next call's: the tag after EXEC belongs to one call only.
TEST_F(NativeWire, ATransactionAnsweredTwiceIsNeverTakenForTheNextCallsReply) {
    Transactions script;
    std::atomic<bool> delayed{true}, sound{false};
    FakeServer server(answered_twice([&](const Command& c) { return script(c); }, delayed,
                                     [&](const Command& c) { return c[0] == "HELLO" || sound; }));
    kv_client* c = client_of(server);
    for (const bool late : {true, false}) {
        delayed = late;
        for (int i = 1; i <= 16; ++i) expect_own_score(c, i, late ? "late copy" : "doubled copy");
    }
    std::this_thread::sleep_for(20ms);  // the server has read what the dropped connections sent
    sound = true;                       // once it answers each command once, calls work again
    double score = -1;
    EXPECT_EQ(zscore(c, "17", &score), KV_SUCCESS);
    EXPECT_EQ(score, 17);
}

// A range inside EXEC that announces 100 million members costs the client nothing: the arrays grow only with
// members that arrived, and the call ends at its bound.
TEST_F(NativeWire, ACountInsideATransactionIsBelievedOnlyAsFarAsTheBytesThatCarryIt) {
    Transactions script;
    script.arm(on("EXEC", [](const std::string&) { return std::string("*3\r\n*100000000\r\n"); }));
    FakeServer server([&](const Command& c) { return script(c); });
    kv_client* c = client_of(server);
    void** m = nullptr;
    size_t n = 0, *ml = nullptr, *vl = nullptr;
    double* s = nullptr;
    void** v = nullptr;
    const auto start = std::chrono::steady_clock::now();
    // The whole set with values: one transaction, whose EXEC never brings the 50 million members (with their
    // scores) it announces.
    EXPECT_EQ(kv_zrange(c, "k", 1, 0, -1, &m, &n, &ml, ZSET_WITH_SCORES | ZSET_WITH_VALUES, &s, &v, &vl), KV_TIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_LT(largest_.load(), size_t{64} << 10) << "allocated for members that never came";
    EXPECT_TRUE(m == nullptr && n == 0 && ml == nullptr && s == nullptr && v == nullptr && vl == nullptr);
}

}  // namespace
}  // namespace kelvane_test
