// junit_document.h -- a JUnit XML report read back with a real XML parser (libxml2, strict: no recovery, no
// network), for the tests that judge what zset-report and the run script write.
#ifndef KELVANE_TESTS_JUNIT_DOCUMENT_H
#define KELVANE_TESTS_JUNIT_DOCUMENT_H

#include <string>
#include <vector>

namespace kelvane_test {

struct JunitCase {
    std::string suite;      // the enclosing <testsuite>'s name
    std::string classname;
    std::string name;
    std::string kind;       // "", "failure" or "error"
    std::string message;    // of the failure or error
    std::string text;       // its element text
    std::string system_out;
};

struct JunitSuite {
    std::string name;
    int tests = -1, failures = -1, errors = -1;  // as the attributes say
};

struct JunitDocument {
    std::string parse_error;  // empty when the document is well-formed XML
    int tests = -1, failures = -1, errors = -1;  // the <testsuites> attributes
    std::vector<JunitSuite> suites;
    std::vector<JunitCase> cases;  // in document order

    bool well_formed() const { return parse_error.empty(); }
    // True when every count attribute agrees with the testcases it counts.
    bool counts_agree() const;
    // The testcases of one kind ("" for passed).
    std::vector<JunitCase> of_kind(const std::string& kind) const;
};

JunitDocument read_junit(const std::string& xml);

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_JUNIT_DOCUMENT_H
