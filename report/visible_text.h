// visible_text.h -- transcript bytes made safe to show and to put in XML. A transcript may hold any bytes (a
// faulty library can print anything), but XML 1.0 carries only certain characters and a terminal should not get
// raw control bytes. Bytes that are not valid UTF-8 text of printable characters become a visible escape.
#ifndef ZSET_REPORT_VISIBLE_TEXT_H
#define ZSET_REPORT_VISIBLE_TEXT_H

#include <cstddef>
#include <string>

namespace zset_report {

// Valid UTF-8 stays as it is, tab included. Each byte of a control character (C0, DEL, C1), of a character XML
// cannot carry (U+FFFE, U+FFFF) or of an invalid UTF-8 sequence becomes "\xNN" (two lowercase hex digits);
// a backslash becomes "\\", so the escape is never ambiguous.
std::string visible(const std::string& bytes);

// visible(), then XML's markup characters as entities, for attribute values (tab as "&#9;") and for element text.
std::string xml_attribute(const std::string& bytes);
std::string xml_text(const std::string& bytes);

// At most max_bytes of a line, with a note of how much was left out: a transcript of junk can hold a single line
// of any length, and a report should stay readable.
std::string clipped(const std::string& line, size_t max_bytes = 4096);

}  // namespace zset_report

#endif  // ZSET_REPORT_VISIBLE_TEXT_H
