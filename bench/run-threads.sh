#!/usr/bin/env bash
# run-threads.sh -- builds kelvane_threads and runs it, in a network
# namespace of its own when the system allows one (its redis-server then
# never meets anything else on loopback; it picks a free port either way).
#
#   bench/run-threads.sh [kelvane_threads options]
#
# KELVANE_BUILD_DIR picks the build directory (default build/). Build
# messages go to standard error; the exit status is the program's.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${KELVANE_BUILD_DIR:-build}

. bench/bench-common.sh
bench_build "$build_dir" kelvane_threads
isolated "$build_dir/bench/kelvane_threads" "$@"
