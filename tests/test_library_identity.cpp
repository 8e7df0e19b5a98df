// The client runs only its own server functions: a library under its name with other code, or a foreign library
// that already holds one of its function names, answers KV_LIBRARY_MISMATCH and none of that code runs; another
// version of the library on the same server is left alone and both work side by side. (A FUNCTION FLUSH while
// connected is covered by the transport tests.)
#include <algorithm>

#include "function_libraries.h"
#include "library_fixture.h"

namespace kelvane_test {
namespace {

class LibraryIdentity : public LibraryTest {
protected:
    // The library the client loads, as a server holds it after a first call.
    FunctionLibrary ours() {
        EXPECT_EQ(zadd("first", 1, "m"), KV_SUCCESS);
        for (const FunctionLibrary& l : function_libraries(server_->port())) {
            if (l.name.rfind("kelvane_", 0) == 0) return l;
        }
        ADD_FAILURE() << "no kelvane library on the server after a call";
        return {};
    }

    // A new client registered with server; registration may already see the mismatch.
    kv_client* client_of(const RedisServer& server) {
        kv_client* c = kv_client_create(1, 2, mm_, 2);
        EXPECT_NE(c, nullptr);
        const int32_t added = kv_server_add(c, "127.0.0.1", server.port(), nullptr);
        EXPECT_TRUE(added == KV_SUCCESS || added == KV_LIBRARY_MISMATCH) << added;
        return c;
    }

    // Writes, reads and removals through c all refuse to run anything.
    void every_call_refused(kv_client* c) {
        double score = 42;
        char* value = reinterpret_cast<char*>(RangeOut::junk);
        size_t len = 7;
        uint32_t n = 9;
        EXPECT_EQ(kv_zaddval(c, "k", 1, 1, "m", 1, "v", 1, 0), KV_LIBRARY_MISMATCH);
        EXPECT_EQ(kv_zadd(c, "k", 1, 1, "m", 1, 0), KV_LIBRARY_MISMATCH);
        EXPECT_EQ(kv_sadd(c, "s", 1, "m", 1, 0), KV_LIBRARY_MISMATCH);
        const int32_t scored = kv_zscore(c, "k", 1, "m", 1, &score, &value, &len);
        EXPECT_EQ(scored, KV_LIBRARY_MISMATCH);
        if (scored == KV_SUCCESS) mm_->release(value);
        else EXPECT_TRUE(score == 0 && value == nullptr && len == 0);
        EXPECT_EQ(kv_zcard(c, "k", 1, &n), KV_LIBRARY_MISMATCH);
        EXPECT_EQ(n, 0u);
        const Range r = read([&](RangeOut& o) {
            return kv_zrange(c, "k", 1, 0, -1, &o.m, &o.n, &o.ml, kAll, &o.s, &o.v, &o.vl);
        });
        EXPECT_EQ(r.status, KV_LIBRARY_MISMATCH);
        EXPECT_EQ(kv_zrem(c, "k", 1, "m", 1), KV_LIBRARY_MISMATCH);
    }
};

// The operation names of a library's functions: <library>_<op>.
Strings operations(const FunctionLibrary& lib) {
    Strings ops;
    for (const std::string& f : lib.functions) ops.push_back(f.substr(lib.name.size() + 1));
    return ops;
}

TEST_F(LibraryIdentity, OtherCodeUnderOurNameIsRefusedAndNeverRuns) {
    const FunctionLibrary mine = ours();
    ASSERT_FALSE(mine.functions.empty());
    RedisServer other;
    const std::string impostor = marking_library(mine.name, mine.functions, "impostor-ran");
    ASSERT_EQ(other.command({"FUNCTION", "LOAD", impostor}), mine.name);

    kv_client* c = client_of(other);
    every_call_refused(c);
    kv_client_destroy(c);
    EXPECT_EQ(other.command({"DBSIZE"}), "0") << "the impostor ran, or a call wrote";
    const auto libs = function_libraries(other.port());
    ASSERT_EQ(libs.size(), 1u);
    EXPECT_TRUE(libs[0].code == impostor) << "the library under our name was replaced";
}

TEST_F(LibraryIdentity, ForeignHolderOfOurFunctionNameIsRefusedOtherVersionsCoexist) {
    const FunctionLibrary mine = ours();
    ASSERT_FALSE(mine.functions.empty());
    {
        SCOPED_TRACE("a foreign library defines one of our function names");
        RedisServer server;
        const std::string foreign = marking_library("foreign", {mine.name + "_zscore"}, "foreign-ran");
        ASSERT_EQ(server.command({"FUNCTION", "LOAD", foreign}), "foreign");
        kv_client* c = client_of(server);
        every_call_refused(c);
        kv_client_destroy(c);
        EXPECT_EQ(server.command({"DBSIZE"}), "0");
        const auto libs = function_libraries(server.port());
        ASSERT_EQ(libs.size(), 1u);
        EXPECT_TRUE(libs[0].code == foreign) << "the foreign library was replaced";
    }
    {
        SCOPED_TRACE("another version of our library is on the server");
        RedisServer server;
        const std::string version = "kelvane_000000000000";
        Strings functions;
        for (const std::string& op : operations(mine)) functions.push_back(version + "_" + op);
        const std::string older = marking_library(version, functions, "older-ran");
        ASSERT_EQ(server.command({"FUNCTION", "LOAD", older}), version);

        kv_client* c = kv_client_create(1, 2, mm_, 2);
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(kv_server_add(c, "127.0.0.1", server.port(), nullptr), KV_SUCCESS);
        EXPECT_EQ(kv_zaddval(c, "k", 1, 1, "m", 1, "v", 1, 0), KV_SUCCESS);
        uint32_t n = 0;
        EXPECT_EQ(kv_zcard(c, "k", 1, &n), KV_SUCCESS);
        EXPECT_EQ(n, 1u);
        const Range r = read([&](RangeOut& o) {
            return kv_zrange(c, "k", 1, 0, -1, &o.m, &o.n, &o.ml, kAll, &o.s, &o.v, &o.vl);
        });
        EXPECT_EQ(r.values, Values{"v"});
        EXPECT_EQ(kv_zrem(c, "k", 1, "m", 1), KV_SUCCESS);
        kv_client_destroy(c);
        EXPECT_EQ(server.command({"EXISTS", "older-ran"}), "0");

        auto libs = function_libraries(server.port());
        std::sort(libs.begin(), libs.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
        ASSERT_EQ(libs.size(), 2u);
        EXPECT_EQ(libs[0].name, version);
        EXPECT_TRUE(libs[0].code == older) << "the other version was changed";
        EXPECT_EQ(libs[1].name, mine.name);
        EXPECT_TRUE(libs[1].code == mine.code) << "our library differs from the one the first server holds";
    }
}

}  // namespace
}  // namespace kelvane_test
