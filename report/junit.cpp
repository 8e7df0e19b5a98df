// junit.cpp -- writing the report. The layout is the one CI systems read (Jenkins, GitLab, GitHub actions that
// publish JUnit): <testsuites>, <testsuite> with its counts, <testcase name classname>, and at most one <failure>
// or <error> per testcase, whose message is one line and whose text holds every line.
#include "junit.h"

#include <vector>

#include "visible_text.h"

namespace zset_report {
namespace {

constexpr size_t kMaxOutputLines = 1000;

struct Counts {
    size_t tests = 0, failures = 0, errors = 0;
    void add(const Entry& e) {
        ++tests;
        failures += e.outcome == Outcome::failed;
        errors += e.outcome == Outcome::error;
    }
    std::string attributes() const {
        return " tests=\"" + std::to_string(tests) + "\" failures=\"" + std::to_string(failures) +
               "\" errors=\"" + std::to_string(errors) + "\"";
    }
};

std::string joined_lines(const std::vector<std::string>& lines, size_t max_lines) {
    std::string text;
    for (size_t k = 0; k < lines.size() && k < max_lines; ++k) text += xml_text(clipped(lines[k])) + "\n";
    if (lines.size() > max_lines) text += "... (" + std::to_string(lines.size() - max_lines) + " more lines)\n";
    return text;
}

void write_testcase(std::string& xml, const Entry& e) {
    xml += "    <testcase name=\"" + xml_attribute(clipped(e.name)) + "\" classname=\"" +
           xml_attribute("zset." + e.suite) + "\"";
    if (e.outcome == Outcome::passed && e.output.empty()) {
        xml += "/>\n";
        return;
    }
    xml += ">\n";
    if (e.outcome != Outcome::passed) {
        const bool failed = e.outcome == Outcome::failed;
        const std::string tag = failed ? "failure" : "error";
        const std::vector<std::string>& body = e.details.empty() ? std::vector<std::string>{e.message} : e.details;
        xml += "      <" + tag + " message=\"" + xml_attribute(clipped(e.message)) + "\" type=\"" +
               (failed ? "failed check" : "incomplete run") + "\">" + joined_lines(body, SIZE_MAX) + "</" + tag +
               ">\n";
    }
    if (!e.output.empty()) {
        xml += "      <system-out>" + joined_lines(e.output, kMaxOutputLines) + "</system-out>\n";
    }
    xml += "    </testcase>\n";
}

}  // namespace

std::string junit_xml(const Assessment& assessment) {
    // Suites in order of first appearance; entries of one suite always stand together.
    std::vector<std::pair<std::string, std::vector<const Entry*>>> suites;
    Counts total;
    for (const Entry& e : assessment.entries) {
        if (suites.empty() || suites.back().first != e.suite) suites.push_back({e.suite, {}});
        suites.back().second.push_back(&e);
        total.add(e);
    }
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    xml += "<testsuites name=\"zset\"" + total.attributes() + ">\n";
    for (const auto& [name, entries] : suites) {
        Counts counts;
        for (const Entry* e : entries) counts.add(*e);
        xml += "  <testsuite name=\"" + xml_attribute(name) + "\"" + counts.attributes() + " skipped=\"0\">\n";
        for (const Entry* e : entries) write_testcase(xml, *e);
        xml += "  </testsuite>\n";
    }
    xml += "</testsuites>\n";
    return xml;
}

}  // namespace zset_report
