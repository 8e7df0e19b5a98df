// options.h -- the comparison's command line.
#ifndef KELVANE_BENCH_OPTIONS_H
#define KELVANE_BENCH_OPTIONS_H

#include <string>

#include "measure.h"

namespace kelvane_bench {

struct Options {
    RoundOptions rounds;
    std::string placement = "both";  // one, two or both
    std::string only;                // run the operations whose name contains this
    bool markdown = false;
    bool help = false;
};

// Throws std::invalid_argument with a message for a bad command line.
Options parse_options(int argc, char** argv);
const char* usage();

}  // namespace kelvane_bench

#endif  // KELVANE_BENCH_OPTIONS_H
