// The client runs only its own server functions: a library under its name with other code, or a foreign library
// that already holds one of its function names, answers KV_LIBRARY_MISMATCH and none of that code runs; another
// version of the library on the same server is left alone and both work side by side. (A FUNCTION FLUSH while
// connected is covered by the transport tests.)
#include <algorithm>
#include <sstream>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

class LibraryIdentity : public LibraryTest {
protected:
    // Our library's name and function names, as the fixture's server lists them after a first call.
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(zadd("first", 1, "m"), KV_SUCCESS);
        std::istringstream list(redis({"FUNCTION", "LIST"}));
        for (std::string word, previous; std::getline(list, word, ','); previous = word) {
            if (previous == "library_name") name_ = word;
            if (previous == "name") functions_.push_back(word);
        }
        ASSERT_EQ(name_.rfind("kelvane_", 0), 0u) << name_;
        ASSERT_FALSE(functions_.empty());
    }

    // Source of a library that registers each of functions; each, when it runs, sets the key "ran" and answers
    // as a successful kelvane function would.
    static std::string marking_library(const std::string& library, const Strings& functions) {
        std::string code = "#!lua name=" + library + "\nlocal function ran() redis.call('SET', 'ran', '1') return { 0 } end\n";
        for (const std::string& f : functions) code += "redis.register_function('" + f + "', ran)\n";
        return code;
    }

    // The code of the library on server named library (a pattern that names one).
    static std::string code_of(const RedisServer& server, const std::string& library) {
        const std::string list = server.command({"FUNCTION", "LIST", "LIBRARYNAME", library, "WITHCODE"});
        return list.substr(std::min(list.find(",library_code,"), list.size()));
    }

    std::string name_;
    Strings functions_;
};

// Our name with other code, or a foreign library holding one of our function names: a new client's writes, reads
// and removals all refuse to run anything, and the library found stays as it was.
TEST_F(LibraryIdentity, OtherCodeUnderOurNameOrAForeignHolderOfOurFunctionNameIsRefused) {
    const std::vector<std::pair<std::string, Strings>> intruders = {{name_, functions_},
                                                                    {"foreign", {name_ + "_zscore"}}};
    for (const auto& [library, functions] : intruders) {
        SCOPED_TRACE(library);
        RedisServer other;
        ASSERT_EQ(other.command({"FUNCTION", "LOAD", marking_library(library, functions)}), library);
        const std::string before = code_of(other, "*");
        int32_t added = -1;
        kv_client* c = another(other.port(), &added);  // registration may already see the mismatch
        EXPECT_TRUE(added == KV_SUCCESS || added == KV_LIBRARY_MISMATCH) << added;
        EXPECT_EQ(kv_zaddval(c, "k", 1, 1, "m", 1, "v", 1, 0), KV_LIBRARY_MISMATCH);
        EXPECT_EQ(zscore_status(c, "k", "m"), KV_LIBRARY_MISMATCH);
        EXPECT_EQ(range("k", 0, -1, c).status, KV_LIBRARY_MISMATCH);
        EXPECT_EQ(kv_zrem(c, "k", 1, "m", 1), KV_LIBRARY_MISMATCH);
        EXPECT_EQ(other.command({"DBSIZE"}), "0") << "foreign code ran, or a call wrote";
        EXPECT_TRUE(code_of(other, "*") == before) << "the library found was replaced";
    }
}

TEST_F(LibraryIdentity, AnotherVersionIsLeftAloneAndBothWork) {
    RedisServer other;
    const std::string version = "kelvane_000000000000";
    Strings functions;
    for (const std::string& f : functions_) functions.push_back(version + f.substr(name_.size()));
    ASSERT_EQ(other.command({"FUNCTION", "LOAD", marking_library(version, functions)}), version);
    const std::string before = code_of(other, version);

    kv_client* c = another(other.port());
    EXPECT_EQ(kv_zaddval(c, "k", 1, 1, "m", 1, "v", 1, 0), KV_SUCCESS);
    EXPECT_EQ(range("k", 0, -1, c).values, Values{"v"});
    EXPECT_EQ(kv_zrem(c, "k", 1, "m", 1), KV_SUCCESS);
    EXPECT_EQ(other.command({"DBSIZE"}), "0") << "the other version ran";
    EXPECT_TRUE(code_of(other, version) == before) << "the other version was changed";
    EXPECT_TRUE(code_of(other, name_) == code_of(*server_, name_)) << "our library differs between two servers";
}

}  // namespace
}  // namespace kelvane_test
