// main.cpp -- zset-report: reads a zset transcript (a file, or standard input), lists on standard output the cases
// that did not pass with their failure lines, optionally writes a JUnit XML report, and exits 0 when the run proves
// the library right, 1 when it does not, 2 when it could not do its job (bad arguments, unreadable input,
// unwritable report).
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "assessment.h"
#include "junit.h"
#include "listing.h"
#include "transcript.h"

namespace {

constexpr int kPassed = 0, kFailed = 1, kCannot = 2;

const char* const kUsage =
    "usage: zset-report [--junit FILE] [--zset-status N] [TRANSCRIPT]\n"
    "\n"
    "Reads a transcript of zset (the file TRANSCRIPT, or standard input when it is\n"
    "absent or \"-\"), lists the cases that did not pass with their failure lines, and\n"
    "exits 0 when all 68 cases passed, no check failed outside a case, the transcript\n"
    "is complete and zset ended normally; 1 otherwise; 2 on bad arguments or when the\n"
    "transcript cannot be read or the report cannot be written.\n"
    "\n"
    "  --junit FILE      also write a JUnit XML report to FILE\n"
    "  --zset-status N   zset's exit status as the shell gave it (124: stopped by\n"
    "                    timeout, 128+N: killed by signal N); anything but 0 fails the run\n"
    "  -h, --help        show this text\n";

int usage_error(const std::string& what) {
    std::cerr << "zset-report: " << what << "\n" << kUsage;
    return kCannot;
}

// Reads to the end with read(2), so that every failure shows, the first one included: a directory (EISDIR), a
// device or pipe that breaks. False with errno set.
bool read_all(int fd, std::string& out) {
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0) out.append(buffer, static_cast<size_t>(n));
        else if (n == 0) return true;
        else if (errno != EINTR) return false;
    }
}

// The whole transcript from the file at path, or from standard input for "-". False with errno set.
bool read_transcript(const std::string& path, std::string& out) {
    if (path == "-") return read_all(STDIN_FILENO, out);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = read_all(fd, out);
    const int saved = errno;
    close(fd);
    errno = saved;
    return ok;
}

bool parse_status(const char* text, int& status) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < 0 || v > 255) return false;
    status = static_cast<int>(v);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string junit_path, input_path = "-";
    bool have_input = false;
    int zset_status = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::cout << kUsage;
            return kPassed;
        } else if (arg == "--junit" || arg == "--zset-status") {
            if (i + 1 >= argc) return usage_error(arg + " needs a value");
            const char* value = argv[++i];
            if (arg == "--junit") {
                junit_path = value;
            } else if (!parse_status(value, zset_status)) {
                return usage_error("--zset-status takes a number from 0 to 255, not \"" + std::string(value) + "\"");
            }
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option " + arg);
        } else if (have_input) {
            return usage_error("one transcript at a time");
        } else {
            input_path = arg;
            have_input = true;
        }
    }

    std::string bytes;
    if (!read_transcript(input_path, bytes)) {
        std::cerr << "zset-report: cannot read " << (input_path == "-" ? "standard input" : input_path) << ": "
                  << std::strerror(errno) << "\n";
        return kCannot;
    }

    const zset_report::Assessment assessment =
        zset_report::assess(zset_report::read_transcript(bytes), zset_status);
    if (!junit_path.empty()) {
        std::ofstream out(junit_path, std::ios::binary | std::ios::trunc);
        out << zset_report::junit_xml(assessment);
        out.close();
        if (!out) {
            std::cerr << "zset-report: cannot write " << junit_path << ": " << std::strerror(errno) << "\n";
            return kCannot;
        }
    }
    std::cout << zset_report::listing(assessment) << std::flush;
    return assessment.ok() ? kPassed : kFailed;
}
