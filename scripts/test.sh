#!/usr/bin/env bash
# test.sh -- sets up, builds and runs every test twice: in a plain build (with the valgrind run of zset, the
# install and packaging tests) and in an AddressSanitizer + UndefinedBehaviorSanitizer build. Each test starts its
# own private Redis servers. Each ctest run also writes a JUnit report of the tests: build/ctest-junit.xml and
# build-asan/ctest-junit.xml.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)

scripts/setup.sh --tests build -DKELVANE_TESTS=ON -DKELVANE_BENCH=ON -DKELVANE_SANITIZE=OFF
echo "test: plain build" >&2
(cd build && ctest --output-on-failure -j"$jobs" --output-junit ctest-junit.xml)

scripts/setup.sh --tests build-asan -DKELVANE_TESTS=ON -DKELVANE_BENCH=OFF -DKELVANE_SANITIZE=ON
echo "test: sanitizer build" >&2
(cd build-asan && ctest --output-on-failure -j"$jobs" --output-junit ctest-junit.xml)
