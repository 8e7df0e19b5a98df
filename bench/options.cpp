// options.cpp -- parsing the command line.
#include "options.h"

#include <stdexcept>

namespace kelvane_bench {

const char* usage() {
    return "usage: kelvane_compare [--quick] [--rounds N] [--duration-ms N] [--min-calls N]\n"
           "                       [--fixed-calls N] [--markers] [--placement one|two|both]\n"
           "                       [--only TEXT] [--markdown]\n"
           "\n"
           "Compares every measured libkelvane operation with raw hiredis doing the same\n"
           "native work, on a private redis-server it starts itself.\n"
           "\n"
           "  --quick           3 rounds of 100 ms per side (default: 7 rounds of 400 ms)\n"
           "  --rounds N        rounds per operation; sides alternate within each round\n"
           "  --duration-ms N   time per side per round\n"
           "  --min-calls N     calls per side per round at least (default 2)\n"
           "  --fixed-calls N   exactly N calls per side per round instead of a duration\n"
           "  --markers         marker system calls around every call, for an strace check\n"
           "  --placement P     one: client and server on one CPU; two: on two CPUs; both\n"
           "  --only TEXT       only the operations whose name contains TEXT\n"
           "  --markdown        tables in Markdown\n";
}

Options parse_options(int argc, char** argv) {
    Options o;
    const auto value = [&](int& i) -> std::string {
        if (i + 1 >= argc) throw std::invalid_argument(std::string(argv[i]) + " needs a value");
        return argv[++i];
    };
    const auto count = [&](int& i) -> long long {
        const std::string flag = argv[i];
        const std::string text = value(i);
        size_t used = 0;
        long long n = -1;
        try {
            n = std::stoll(text, &used);
        } catch (const std::exception&) {
        }
        if (used != text.size() || n <= 0) {
            throw std::invalid_argument(flag + " takes a positive whole number, not " + text);
        }
        return n;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            o.rounds.rounds = 3;
            o.rounds.seconds = 0.1;
        } else if (arg == "--rounds") {
            o.rounds.rounds = static_cast<int>(count(i));
        } else if (arg == "--duration-ms") {
            o.rounds.seconds = static_cast<double>(count(i)) / 1000.0;
        } else if (arg == "--min-calls") {
            o.rounds.min_calls = static_cast<std::uint64_t>(count(i));
        } else if (arg == "--fixed-calls") {
            o.rounds.fixed_calls = static_cast<std::uint64_t>(count(i));
        } else if (arg == "--markers") {
            o.rounds.markers = true;
        } else if (arg == "--placement") {
            o.placement = value(i);
            if (o.placement != "one" && o.placement != "two" && o.placement != "both") {
                throw std::invalid_argument("--placement takes one, two or both");
            }
        } else if (arg == "--only") {
            o.only = value(i);
        } else if (arg == "--markdown") {
            o.markdown = true;
        } else if (arg == "--help" || arg == "-h") {
            o.help = true;
        } else {
            throw std::invalid_argument("unknown argument " + arg);
        }
    }
    return o;
}

}  // namespace kelvane_bench
