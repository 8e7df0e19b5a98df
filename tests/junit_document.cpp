// junit_document.cpp -- walking the libxml2 tree of a JUnit report. Parse errors are collected as text, so a
// test can show why a report is not XML.
#include "junit_document.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

namespace kelvane_test {
namespace {

void collect_error(void* context, const char* format, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    *static_cast<std::string*>(context) += buf;
}

bool is(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE && std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

std::string attribute(const xmlNode* node, const char* name) {
    xmlChar* v = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
    if (v == nullptr) return "";
    std::string s(reinterpret_cast<const char*>(v));
    xmlFree(v);
    return s;
}

int count_attribute(const xmlNode* node, const char* name) {
    const std::string v = attribute(node, name);
    return v.empty() ? -1 : std::stoi(v);
}

std::string text_of(const xmlNode* node) {
    xmlChar* v = xmlNodeGetContent(node);
    std::string s(reinterpret_cast<const char*>(v));
    xmlFree(v);
    return s;
}

JunitCase read_case(const xmlNode* node, const std::string& suite) {
    JunitCase c{suite, attribute(node, "classname"), attribute(node, "name"), "", "", "", ""};
    for (const xmlNode* child = node->children; child; child = child->next) {
        if (is(child, "failure") || is(child, "error")) {
            c.kind = reinterpret_cast<const char*>(child->name);
            c.message = attribute(child, "message");
            c.text = text_of(child);
        } else if (is(child, "system-out")) {
            c.system_out = text_of(child);
        }
    }
    return c;
}

}  // namespace

JunitDocument read_junit(const std::string& xml) {
    JunitDocument doc;
    xmlSetGenericErrorFunc(&doc.parse_error, collect_error);
    std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> tree(
        xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "junit.xml", nullptr, XML_PARSE_NONET),
        &xmlFreeDoc);
    xmlSetGenericErrorFunc(nullptr, nullptr);
    if (!tree) {
        if (doc.parse_error.empty()) doc.parse_error = "not XML";
        return doc;
    }
    const xmlNode* root = xmlDocGetRootElement(tree.get());
    if (root == nullptr || !is(root, "testsuites")) {
        doc.parse_error = "the root element is not <testsuites>";
        return doc;
    }
    doc.tests = count_attribute(root, "tests");
    doc.failures = count_attribute(root, "failures");
    doc.errors = count_attribute(root, "errors");
    for (const xmlNode* s = root->children; s; s = s->next) {
        if (!is(s, "testsuite")) continue;
        JunitSuite suite{attribute(s, "name"), count_attribute(s, "tests"), count_attribute(s, "failures"),
                         count_attribute(s, "errors")};
        doc.suites.push_back(suite);
        for (const xmlNode* c = s->children; c; c = c->next) {
            if (is(c, "testcase")) doc.cases.push_back(read_case(c, suite.name));
        }
    }
    return doc;
}

bool JunitDocument::counts_agree() const {
    auto count = [&](const std::string& suite, const std::string& kind, bool any_kind) {
        int n = 0;
        for (const auto& c : cases) n += (suite.empty() || c.suite == suite) && (any_kind || c.kind == kind);
        return n;
    };
    if (tests != count("", "", true) || failures != count("", "failure", false) ||
        errors != count("", "error", false)) {
        return false;
    }
    for (const auto& s : suites) {
        if (s.tests != count(s.name, "", true) || s.failures != count(s.name, "failure", false) ||
            s.errors != count(s.name, "error", false)) {
            return false;
        }
    }
    return true;
}

std::vector<JunitCase> JunitDocument::of_kind(const std::string& kind) const {
    std::vector<JunitCase> out;
    for (const auto& c : cases) {
        if (c.kind == kind) out.push_back(c);
    }
    return out;
}

}  // namespace kelvane_test
