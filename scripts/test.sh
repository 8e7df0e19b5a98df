#!/usr/bin/env bash
# test.sh -- sets up, builds and runs every test twice: in a plain build (with the valgrind run of zset, the
# install and packaging tests) and in an AddressSanitizer + UndefinedBehaviorSanitizer build; then the tests of
# threads sharing a client (label `threads`) a third time, in a small ThreadSanitizer build of the library and
# those tests alone. Each test starts its own private Redis servers. Each ctest run also writes a JUnit report of
# the tests: build/ctest-junit.xml, build-asan/ctest-junit.xml and build-tsan/ctest-junit.xml.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)

scripts/setup.sh --tests build -DKELVANE_TESTS=ON -DKELVANE_BENCH=ON -DKELVANE_SANITIZE=OFF
echo "test: plain build" >&2
(cd build && ctest --output-on-failure -j"$jobs" --output-junit ctest-junit.xml)

scripts/setup.sh --tests build-asan -DKELVANE_TESTS=ON -DKELVANE_BENCH=OFF -DKELVANE_SANITIZE=ON
echo "test: sanitizer build" >&2
(cd build-asan && ctest --output-on-failure -j"$jobs" --output-junit ctest-junit.xml)

# Only the library and the thread tests: ThreadSanitizer judges how threads share a client, and the other tests
# run single-threaded code the builds above cover.
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVANE_TESTS=ON -DKELVANE_BENCH=OFF \
  -DKELVANE_EXAMPLES=OFF -DKELVANE_SANITIZE_THREAD=ON >&2
cmake --build build-tsan -j"$jobs" --target thread_tests >&2
echo "test: thread sanitizer build" >&2
(cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
  ctest --output-on-failure -j"$jobs" -L threads --output-junit ctest-junit.xml)
