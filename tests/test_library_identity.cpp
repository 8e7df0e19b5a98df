// The client runs only its own server functions: a library under its name with other code, or a foreign library
// that already holds one of its function names, answers KV_LIBRARY_MISMATCH and none of that code runs (reads,
// which need no function, read the data); another version of the library on the same server is left alone and
// both work side by side. (A FUNCTION FLUSH while connected is covered by the transport tests.)
#include <algorithm>
#include <sstream>

#include "library_fixture.h"

namespace kelvane_test {
namespace {

// Source of a library that registers each of functions; each, when it runs, sets the key "ran" and answers as a
// successful kelvane function would.
std::string marking_library(const std::string& library, const Strings& functions) {
    std::string code = "#!lua name=" + library + "\nlocal function ran() redis.call('SET', 'ran', '1') return { 0 } end\n";
    for (const std::string& f : functions) code += "redis.register_function('" + f + "', ran)\n";
    return code;
}

// The code of the library named library on server.
std::string code_of(const RedisServer& server, const std::string& library) {
    const std::string list = server.command({"FUNCTION", "LIST", "LIBRARYNAME", library, "WITHCODE"});
    return list.substr(std::min(list.find(",library_code,"), list.size()));
}

using LibraryIdentity = LibraryTest;

TEST_F(LibraryIdentity, OtherCodeOrAForeignHolderOfOurNamesIsRefusedAnotherVersionCoexists) {
    // Our library's name and function names, as the fixture's server lists them after a first call.
    ASSERT_EQ(zadd("first", 1, "m"), KV_SUCCESS);
    std::string name;
    Strings functions, other_version;
    std::istringstream list(redis({"FUNCTION", "LIST"}));
    for (std::string word, previous; std::getline(list, word, ','); previous = word) {
        if (previous == "library_name") name = word;
        if (previous == "name") functions.push_back(word);
    }
    ASSERT_EQ(name.rfind("kelvane_", 0), 0u) << name;
    ASSERT_FALSE(functions.empty());
    const std::string version = "kelvane_000000000000";
    for (const std::string& f : functions) other_version.push_back(version + f.substr(name.size()));

    const struct {
        std::string library;
        Strings functions;
        int32_t status;
    } found[] = {{name, functions, KV_LIBRARY_MISMATCH},
                 {"foreign", {name + "_zscore"}, KV_LIBRARY_MISMATCH},
                 {version, other_version, KV_SUCCESS}};
    for (const auto& [library, library_functions, status] : found) {
        SCOPED_TRACE(library);
        RedisServer other;
        ASSERT_EQ(other.command({"FUNCTION", "LOAD", marking_library(library, library_functions)}), library);
        const std::string before = code_of(other, library);
        int32_t added = -1;
        kv_client* c = another(other.port(), &added);  // registration may already see the mismatch
        EXPECT_TRUE(added == KV_SUCCESS || added == status) << added;
        EXPECT_EQ(kv_zaddval(c, "k", 1, 1, "m", 1, "v", 1, 0), status);
        const int32_t read = status == KV_SUCCESS ? KV_SUCCESS : KV_NOTFOUND;  // the write's key, or none
        EXPECT_EQ(zscore_status(c, "k", "m"), read);
        EXPECT_EQ(range("k", 0, -1, c).status, read);
        EXPECT_EQ(kv_zrem(c, "k", 1, "m", 1), status);
        EXPECT_EQ(other.command({"DBSIZE"}), "0") << "the library found ran, or a refused call wrote";
        EXPECT_TRUE(code_of(other, library) == before) << "the library found was replaced";
        if (status == KV_SUCCESS) EXPECT_TRUE(code_of(other, name) == code_of(*server_, name)) << "ours differs";
    }
}

}  // namespace
}  // namespace kelvane_test
