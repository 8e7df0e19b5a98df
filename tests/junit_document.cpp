// junit_document.cpp -- walking the libxml2 tree of a JUnit report. A parse error is kept as text, so that a test
// can show why a report is not XML.
#include "junit_document.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>

namespace kelvane_test {
namespace {

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
    xmlResetLastError();
    std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> tree(
        xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "junit.xml", nullptr,
                      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
        &xmlFreeDoc);
    const xmlError* error = xmlGetLastError();
    if (error != nullptr && error->code != XML_ERR_OK) {
        doc.parse_error = error->message ? error->message : "not XML";
        return doc;
    }
    const xmlNode* root = tree ? xmlDocGetRootElement(tree.get()) : nullptr;
    if (root == nullptr || !is(root, "testsuites")) {
        doc.parse_error = "no <testsuites> root element";
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
    // The whole document's counts, then each suite's (the whole named "").
    auto agree = [&](const std::string& suite, int t, int f, int e) {
        for (const auto& c : cases) {
            if (suite.empty() || c.suite == suite) --t, f -= c.kind == "failure", e -= c.kind == "error";
        }
        return t == 0 && f == 0 && e == 0;
    };
    bool ok = agree("", tests, failures, errors);
    for (const auto& s : suites) ok = ok && agree(s.name, s.tests, s.failures, s.errors);
    return ok;
}

std::vector<JunitCase> JunitDocument::of_kind(const std::string& kind) const {
    std::vector<JunitCase> out;
    std::copy_if(cases.begin(), cases.end(), std::back_inserter(out), [&](auto& c) { return c.kind == kind; });
    return out;
}

}  // namespace kelvane_test
