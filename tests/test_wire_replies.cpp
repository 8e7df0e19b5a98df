// A server that misbehaves on the wire, played by the scripted fake server: replies left over from other calls
// (answered twice, or sent while no command waits), replies of the wrong shape, bytes after a reply, counts that the
// bytes do not back, a greeting that announces two billion elements, and scores that are no numbers. No call may
// hand out data that is not its own reply's; a connection out of step is dropped and the next call opens another.
// The reads here take the server functions (KELVANE_READS=functions), whose replies these scripts play; the native
// reads' transactions meet the same faults in test_wire_transactions.cpp.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include "fake_server.h"
#include "kelvane.h"
#include "wire_fixture.h"

namespace kelvane_test {
namespace {

using namespace std::chrono_literals;

// A sound server's answer to every command the tests make: the score of a member is the member's own text
// ("7" scores 7); kv_zcard counts 3; kv_zincrby makes 2.5; kv_get_ttl of "k<n>" reads n seconds; a range is
// {"a": 1} with a value when values were asked for.
std::string sound(const Command& c) {
    if (std::string routine = routine_answer(c); !routine.empty()) return routine;
    if (c[0] == "DEL") return integer(1);
    if (c[0] == "PTTL") return integer(std::atol(c[1].c_str() + 4) * 1000);  // "kv{k<n>}"
    const std::string op = operation(c);
    if (op == "zscore") return function_reply(c, {integer(0), bulk(c[5]), nil()});
    if (op == "zrank") return function_reply(c, {integer(0), integer(0), nil()});
    if (op == "zcount") return function_reply(c, {integer(0), integer(3)});
    if (op == "zincrby") return function_reply(c, {integer(0), bulk("2.5")});
    if (op == "zrange") {
        const bool scores = c[9] == "1", values = c[10] == "1";
        return function_reply(c, {integer(0), array(scores ? std::vector{bulk("a"), bulk("1")} : std::vector{bulk("a")}),
                                  array(values ? std::vector{bulk("v")} : std::vector<std::string>{})});
    }
    return "-ERR the fake server has no script for " + c[0] + "\r\n";
}

class Wire : public WireTest {
protected:
    kv_client* client_of(const FakeServer& server, int32_t expected = KV_SUCCESS) {
        return WireTest::client_of(server, "functions", expected);
    }
    int32_t zcard(kv_client* c, uint32_t* n) { return kv_zcard(c, "k", 1, n); }
    // kv_zrange of everything with flags; the result released.
    int32_t zrange(kv_client* c, int32_t flags, double* first_score = nullptr) {
        void** m = nullptr;
        size_t n = 0, *ml = nullptr, *vl = nullptr;
        double* s = nullptr;
        void** v = nullptr;
        int32_t status = KV_INVALID_PARAMETER;
        if (flags == ZSET_DEFAULT) status = kv_zrange(c, "k", 1, 0, -1, &m, &n, &ml, flags);
        if (flags == ZSET_WITH_SCORES) status = kv_zrange(c, "k", 1, 0, -1, &m, &n, &ml, flags, &s);
        if (flags == ZSET_WITH_VALUES) status = kv_zrange(c, "k", 1, 0, -1, &m, &n, &ml, flags, &v, &vl);
        if (first_score != nullptr) *first_score = s != nullptr ? s[0] : 0;
        for (size_t k = 0; k < n; ++k) mm_->release(m[k]), mm_->release(v ? v[k] : nullptr);
        for (void* a : {static_cast<void*>(m), static_cast<void*>(ml), static_cast<void*>(s),
                        static_cast<void*>(v), static_cast<void*>(vl)}) {
            mm_->release(a);
        }
        return status;
    }

    // Runs call (which must answer KV_SERVER_ERROR) against a server that misanswers it with script(command),
    // then shows that the connection was dropped: the next call, answered soundly, opens a new one and works.
    void expect_dropped(const char* what, const std::function<int32_t(kv_client*)>& call,
                        std::function<std::string(const Command&)> misanswer) {
        SCOPED_TRACE(what);
        std::atomic<bool> armed{false};
        FakeServer server([&](const Command& c) {
            const bool routine = !routine_answer(c).empty() && c[0] != "PING";
            return !routine && armed.exchange(false) ? misanswer(c) : sound(c);
        });
        kv_client* c = client_of(server);
        uint32_t n = 0;
        ASSERT_EQ(zcard(c, &n), KV_SUCCESS);  // the connection and the library check are done
        armed = true;
        EXPECT_EQ(call(c), KV_SERVER_ERROR);
        const int before = server.connections();
        EXPECT_EQ(zcard(c, &n), KV_SUCCESS);
        EXPECT_EQ(n, 3u);
        EXPECT_EQ(server.connections(), before + 1) << "the connection that was out of step is used again";
    }
};

// The case that matters most: a server that answers each command twice. Whether the copy comes right behind its
// reply or ahead of the next one (after the client looked for stray bytes), no call returns another call's value.
TEST_F(Wire, AReplyAnsweredTwiceIsNeverTakenForTheNextCallsReply) {
    std::atomic<bool> delayed{true};
    FakeServer server(answered_twice(sound, delayed,
                                     [](const Command& c) { return c[0] == "HELLO" || c[0] == "FUNCTION"; }));
    kv_client* c = client_of(server);
    for (const bool late : {true, false}) {
        delayed = late;
        for (int i = 1; i <= 16; ++i) {
            expect_own_score(c, i, late ? "late copy" : "doubled copy");
            int32_t ttl = -1;
            const std::string key = "k" + std::to_string(i);
            const int32_t ttl_status = kv_get_ttl(c, key.data(), key.size(), &ttl);
            EXPECT_TRUE(ttl_status == KV_SERVER_ERROR || (ttl_status == KV_SUCCESS && ttl == i))
                << key << " answered " << ttl_status << ", ttl " << ttl;
        }
    }
}

// Bytes that arrive while no command waits (a copy of the last reply) are found before the next command goes out,
// or, right after a reply, by that command's own reply: they are never read as its answer.
TEST_F(Wire, BytesThatArriveWhileNoCommandWaitsAreNeverReadAsAReply) {
    FakeServer server(sound);
    kv_client* c = client_of(server);
    double score = 0;
    ASSERT_EQ(zscore(c, "1", &score), KV_SUCCESS);
    server.push(server.last_answer());
    const int32_t status = zscore(c, "2", &score);
    EXPECT_TRUE(status == KV_SERVER_ERROR || (status == KV_SUCCESS && score == 2)) << status << ", score " << score;

    ASSERT_EQ(zscore(c, "3", &score), KV_SUCCESS);
    const int before = server.connections();
    server.push(server.last_answer());
    std::this_thread::sleep_for(20ms);
    // Found before anything of the call was sent: a new connection, and the call goes on.
    EXPECT_EQ(zscore(c, "4", &score), KV_SUCCESS);
    EXPECT_EQ(score, 4);
    EXPECT_EQ(server.connections(), before + 1);
}

TEST_F(Wire, AReplyOfTheWrongShapeIsAServerErrorAndItsConnectionIsDropped) {
    double score = 0;
    uint32_t n = 0;
    const auto zscore_call = [&](kv_client* c) { return zscore(c, "1", &score); };
    const auto zcard_call = [&](kv_client* c) { return zcard(c, &n); };
    const auto with_scores = [&](kv_client* c) { return zrange(c, ZSET_WITH_SCORES); };
    const auto with_values = [&](kv_client* c) { return zrange(c, ZSET_WITH_VALUES); };
    expect_dropped("a field too many", zcard_call,
                   [](const Command& c) { return function_reply(c, {integer(0), integer(3), integer(4)}); });
    expect_dropped("a status line for a score", zscore_call,
                   [](const Command& c) { return function_reply(c, {integer(0), "+1\r\n", nil()}); });
    expect_dropped("a number for a score", zscore_call,
                   [](const Command& c) { return function_reply(c, {integer(0), integer(1), nil()}); });
    expect_dropped("an array for a value", zscore_call,
                   [](const Command& c) { return function_reply(c, {integer(0), bulk("1"), array({nil()})}); });
    expect_dropped("no array at all", [&](kv_client* c) { return kv_zrank(c, "k", 1, "m", 1, &n, ZSET_DEFAULT); },
                   [](const Command&) { return integer(0); });
    expect_dropped("two billion fields announced", zscore_call, [](const Command&) { return "*2147483647\r\n"; });
    expect_dropped("an array for a count of removed keys", [](kv_client* c) { return kv_del(c, "k", 1); },
                   [](const Command&) { return array({integer(1)}); });
    expect_dropped("a member without its score", with_scores,
                   [](const Command& c) { return function_reply(c, {integer(0), array({bulk("a")}), array({})}); });
    expect_dropped("a member that is a number", with_values, [](const Command& c) {
        return function_reply(c, {integer(0), array({integer(5)}), array({bulk("v")})});
    });
    expect_dropped("values for members that are not there", with_values, [](const Command& c) {
        return function_reply(c, {integer(0), array({bulk("a")}), array({nil(), nil()})});
    });
    expect_dropped("members with a not-found", with_values, [](const Command& c) {
        return function_reply(c, {integer(13), array({bulk("a")}), array({bulk("v")})});
    });
}

// Bytes after the last reply of a call answer nothing it asked: its reply may be another command's, so the call
// hands nothing out.
TEST_F(Wire, BytesAfterAReplyMakeItsCallAServerError) {
    double score = 0;
    const auto zscore_call = [&](kv_client* c) { return zscore(c, "1", &score); };
    expect_dropped("a whole reply more", zscore_call, [](const Command& c) { return sound(c) + "+OK\r\n"; });
    expect_dropped("part of a reply more", zscore_call, [](const Command& c) { return sound(c) + "$5\r\nab"; });
    expect_dropped("the range answered twice", [&](kv_client* c) { return zrange(c, ZSET_DEFAULT); },
                   [](const Command& c) { return sound(c) + sound(c); });
}

// A reply of a few bytes that announces 50 million members costs the client nothing: the arrays grow only with
// members that arrived. A count the bytes back is believed: 5,000 members with scores arrive whole.
TEST_F(Wire, ACountIsBelievedOnlyAsFarAsTheBytesThatCarryIt) {
    std::atomic<bool> announce_only{true};
    FakeServer server([&](const Command& c) {
        if (operation(c) != "zrange") return sound(c);
        if (announce_only) return std::string("*4\r\n:0\r\n*100000000\r\n");
        std::vector<std::string> items;
        for (int i = 0; i < 5000; ++i) items.push_back(bulk("member-" + std::to_string(i))), items.push_back(bulk("2"));
        return function_reply(c, {integer(0), array(items), array({})});
    });
    kv_client* c = client_of(server);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(zrange(c, ZSET_WITH_SCORES), KV_TIMEOUT);  // the members never come
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_LT(largest_.load(), size_t{64} << 10) << "allocated for members that never came";

    announce_only = false;
    double first = 0;
    EXPECT_EQ(zrange(c, ZSET_WITH_SCORES, &first), KV_SUCCESS);
    EXPECT_EQ(first, 2);
}

// A greeting that announces two billion elements fails the registration with a status (no exception through the
// reader), and the seed stays registered: once the server greets soundly, calls work.
TEST_F(Wire, AGreetingThatAnnouncesTwoBillionElementsFailsItsCallAndTheSeedStays) {
    std::atomic<bool> first{true};
    FakeServer server([&](const Command& c) {
        return c[0] == "HELLO" && first.exchange(false) ? std::string("*2147483647\r\n") : sound(c);
    });
    kv_client* c = client_of(server, KV_SERVER_ERROR);
    uint32_t n = 0;
    EXPECT_EQ(zcard(c, &n), KV_SUCCESS);
    EXPECT_EQ(n, 3u);
}

// No sorted set holds NaN, and a score's text has nothing around the number: a server that says otherwise is not
// believed.
TEST_F(Wire, AScoreThatIsNoNumberIsAServerError) {
    for (const char* text : {"nan", "-nan", " 1"}) {
        SCOPED_TRACE(text);
        FakeServer server([&](const Command& c) {
            const std::string op = operation(c);
            if (op == "zscore") return function_reply(c, {integer(0), bulk(text), nil()});
            if (op == "zincrby") return function_reply(c, {integer(0), bulk(text)});
            if (op == "zrange") return function_reply(c, {integer(0), array({bulk("a"), bulk(text)}), array({})});
            return sound(c);
        });
        kv_client* c = client_of(server);
        double score = 7;
        EXPECT_EQ(zscore(c, "m", &score), KV_SERVER_ERROR);
        EXPECT_EQ(score, 0);
        EXPECT_EQ(kv_zincrby(c, "k", 1, "m", 1, 1, &score, 0), KV_SERVER_ERROR);
        EXPECT_EQ(score, 0);
        EXPECT_EQ(zrange(c, ZSET_WITH_SCORES), KV_SERVER_ERROR);
    }
}

}  // namespace
}  // namespace kelvane_test
