#!/usr/bin/env bash
# test.sh -- sets up, builds and runs every test twice: in a plain build (with
# the valgrind run of zset) and in an AddressSanitizer + UndefinedBehavior-
# Sanitizer build. Each test starts its own private Redis servers.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)

scripts/setup.sh build
echo "test: plain build" >&2
(cd build && ctest --output-on-failure -j"$jobs")

scripts/setup.sh build-asan -DKELVANE_SANITIZE=ON -DKELVANE_BENCH=OFF
echo "test: sanitizer build" >&2
(cd build-asan && ctest --output-on-failure -j"$jobs")
