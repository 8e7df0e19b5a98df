// function_libraries.h -- the Redis function libraries a test server holds, as FUNCTION LIST WITHCODE reports
// them, and Lua source for stand-in libraries that leave a mark when any of their functions runs.
#ifndef KELVANE_TESTS_FUNCTION_LIBRARIES_H
#define KELVANE_TESTS_FUNCTION_LIBRARIES_H

#include <string>
#include <vector>

namespace kelvane_test {

struct FunctionLibrary {
    std::string name;
    std::vector<std::string> functions;
    std::string code;
};

// Every library on the server at 127.0.0.1:port, in the server's order.
std::vector<FunctionLibrary> function_libraries(int port);

// Source of a library called `library` that registers each of `functions` (without flags); each one, when it
// runs, sets the key `marker` and answers as a successful kelvane function would.
std::string marking_library(const std::string& library, const std::vector<std::string>& functions,
                            const std::string& marker);

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_FUNCTION_LIBRARIES_H
