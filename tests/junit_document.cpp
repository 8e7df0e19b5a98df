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

// An attribute's value, or without one the node's text; "" when there is none.
std::string text(const xmlNode* node, const char* attribute = nullptr) {
    xmlChar* v = attribute ? xmlGetProp(node, reinterpret_cast<const xmlChar*>(attribute))
                           : xmlNodeGetContent(node);
    const std::string s = v ? reinterpret_cast<const char*>(v) : "";
    xmlFree(v);
    return s;
}

int count(const xmlNode* node, const char* name) {
    const std::string v = text(node, name);
    return v.empty() ? -1 : std::stoi(v);
}

}  // namespace

JunitDocument read_junit(const std::string& xml) {
    JunitDocument doc;
    xmlSetGenericErrorFunc(&doc.parse_error, collect_error);
    std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> tree(
        xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "junit.xml", nullptr, XML_PARSE_NONET), &xmlFreeDoc);
    xmlSetGenericErrorFunc(nullptr, nullptr);
    const xmlNode* root = tree ? xmlDocGetRootElement(tree.get()) : nullptr;
    if (root == nullptr || !is(root, "testsuites")) {
        if (doc.parse_error.empty()) doc.parse_error = "no <testsuites> root element";
        return doc;
    }
    doc.tests = count(root, "tests"), doc.failures = count(root, "failures"), doc.errors = count(root, "errors");
    for (const xmlNode* s = root->children; s; s = s->next) {
        if (!is(s, "testsuite")) continue;
        doc.suites.push_back({text(s, "name"), count(s, "tests"), count(s, "failures"), count(s, "errors")});
        for (const xmlNode* c = s->children; c; c = c->next) {
            if (!is(c, "testcase")) continue;
            JunitCase jc{doc.suites.back().name, text(c, "classname"), text(c, "name"), "", "", "", ""};
            for (const xmlNode* child = c->children; child; child = child->next) {
                if (is(child, "failure") || is(child, "error")) {
                    jc.kind = reinterpret_cast<const char*>(child->name);
                    jc.message = text(child, "message");
                    jc.text = text(child);
                } else if (is(child, "system-out")) {
                    jc.system_out = text(child);
                }
            }
            doc.cases.push_back(jc);
        }
    }
    return doc;
}

bool JunitDocument::counts_agree() const {
    // The counts of the whole document and of each suite (named "" for the whole).
    auto agree = [&](const std::string& suite, int t, int f, int e) {
        int tests = 0, failures = 0, errors = 0;
        for (const auto& c : cases) {
            if (!suite.empty() && c.suite != suite) continue;
            ++tests, failures += c.kind == "failure", errors += c.kind == "error";
        }
        return t == tests && f == failures && e == errors;
    };
    bool ok = agree("", tests, failures, errors);
    for (const auto& s : suites) ok = ok && agree(s.name, s.tests, s.failures, s.errors);
    return ok;
}

std::vector<JunitCase> JunitDocument::of_kind(const std::string& kind) const {
    std::vector<JunitCase> out;
    for (const auto& c : cases) {
        if (c.kind == kind) out.push_back(c);
    }
    return out;
}

}  // namespace kelvane_test
