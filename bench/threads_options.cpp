// threads_options.cpp -- parsing kelvane_threads' command line.
#include "threads_options.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace kelvane_bench {
namespace {

// The items of a comma-separated list, none of them empty.
std::vector<std::string> items(const std::string& flag, const std::string& list) {
    std::vector<std::string> out;
    std::size_t from = 0;
    for (;;) {
        const std::size_t comma = list.find(',', from);
        out.push_back(list.substr(from, comma == std::string::npos ? std::string::npos : comma - from));
        if (out.back().empty()) throw std::invalid_argument(flag + " has an empty item in " + list);
        if (comma == std::string::npos) return out;
        from = comma + 1;
    }
}

long long whole_number(const std::string& flag, const std::string& text, long long most) {
    std::size_t used = 0;
    long long n = -1;
    try {
        n = std::stoll(text, &used);
    } catch (const std::exception&) {
    }
    if (used != text.size() || n <= 0 || n > most) {
        throw std::invalid_argument(flag + " takes whole numbers from 1 to " + std::to_string(most) +
                                    ", not " + text);
    }
    return n;
}

template <typename T>
void add_once(std::vector<T>& list, T item) {
    if (std::find(list.begin(), list.end(), item) == list.end()) list.push_back(item);
}

Way way_named(const std::string& name) {
    if (name == "shared") return Way::shared;
    if (name == "per-thread") return Way::per_thread;
    if (name == "raw") return Way::raw;
    throw std::invalid_argument("--ways takes shared, per-thread and raw, not " + name);
}

PointOp op_named(const std::string& name) {
    if (name == "kv_zscore" || name == "zscore") return PointOp::zscore;
    if (name == "kv_zrank" || name == "zrank") return PointOp::zrank;
    throw std::invalid_argument("--op takes kv_zscore and kv_zrank, not " + name);
}

Cpus cpus_named(const std::string& name) {
    if (name == "split") return Cpus::split;
    if (name == "one") return Cpus::one;
    if (name == "none") return Cpus::none;
    throw std::invalid_argument("--cpus takes split, one and none, not " + name);
}

}  // namespace

const char* cpus_name(Cpus cpus) {
    switch (cpus) {
        case Cpus::split: return "split";
        case Cpus::one: return "one";
        case Cpus::none: return "none";
    }
    return "?";
}

const char* threads_usage() {
    return "usage: kelvane_threads [--quick] [--threads N,N,...] [--ways W,W,...] [--op OP,OP]\n"
           "                       [--rounds N] [--seconds S] [--cpus P,P,...] [--markdown]\n"
           "\n"
           "Calls per second and latency of a point read made by many threads at once, three\n"
           "ways side by side: one kv_client shared by every thread, one kv_client per thread,\n"
           "and one raw hiredis connection per thread doing the same native work; on a\n"
           "private redis-server it starts itself.\n"
           "\n"
           "  --threads LIST  thread counts (default 1,2,4,8,16,64)\n"
           "  --ways LIST     shared, per-thread, raw (default all three); sharing a client\n"
           "                  needs a library whose clients may be used by many threads\n"
           "  --op LIST       kv_zscore (ZSCORE + HGET pipelined), kv_zrank (ZRANK);\n"
           "                  default kv_zscore\n"
           "  --rounds N      rounds per thread count; the ways take turns in each (default 5)\n"
           "  --seconds S     time per way per round, up to 10 (default 1)\n"
           "  --quick         3 rounds of 0.5 s: about half a minute for one op\n"
           "  --cpus LIST     split: server on the first allowed CPU, client threads on the\n"
           "                  second (default); one: both on the first; none: nothing pinned\n"
           "  --markdown      tables in Markdown\n";
}

ThreadsOptions parse_threads_options(int argc, char** argv) {
    ThreadsOptions o;
    const auto value = [&](int& i) -> std::string {
        if (i + 1 >= argc) throw std::invalid_argument(std::string(argv[i]) + " needs a value");
        return argv[++i];
    };
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            o.rounds = 3;
            o.seconds = 0.5;
        } else if (arg == "--threads") {
            o.threads.clear();
            for (const auto& n : items(arg, value(i))) {
                add_once(o.threads, static_cast<int>(whole_number(arg, n, 1024)));
            }
        } else if (arg == "--ways") {
            o.ways.clear();
            for (const auto& w : items(arg, value(i))) add_once(o.ways, way_named(w));
            // The table reads in this order whatever the command line's.
            std::sort(o.ways.begin(), o.ways.end());
        } else if (arg == "--op") {
            o.ops.clear();
            for (const auto& op : items(arg, value(i))) add_once(o.ops, op_named(op));
        } else if (arg == "--rounds") {
            o.rounds = static_cast<int>(whole_number(arg, value(i), 1000));
        } else if (arg == "--seconds") {
            const std::string text = value(i);
            std::size_t used = 0;
            double s = -1;
            try {
                s = std::stod(text, &used);
            } catch (const std::exception&) {
            }
            if (used != text.size() || !(s >= 0.01 && s <= 10)) {
                throw std::invalid_argument("--seconds takes a time from 0.01 to 10, not " + text);
            }
            o.seconds = s;
        } else if (arg == "--cpus") {
            o.cpus.clear();
            for (const auto& p : items(arg, value(i))) add_once(o.cpus, cpus_named(p));
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
