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

# Whatever is missing comes from the project's set-up, which also builds.
missing=0
for tool in g++ cmake redis-server pkg-config; do
  command -v "$tool" >/dev/null || missing=1
done
((missing)) || pkg-config --exists hiredis || missing=1
((missing)) || pkg-config --exists openssl || missing=1
if ((missing)); then
  scripts/setup.sh --tests "$build_dir"
fi
# An existing build directory keeps its own settings; a new one gets the
# project's defaults.
if [[ ! -f $build_dir/CMakeCache.txt ]]; then
  cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2
fi
cmake --build "$build_dir" -j2 --target kelvane_threads >&2
bin="$build_dir/bench/kelvane_threads"

# A private network namespace with loopback up, or the machine's own when
# unshare is not permitted here.
if unshare -n true 2>/dev/null && command -v ip >/dev/null; then
  exec unshare -n bash -c 'ip link set lo up && exec "$@"' isolated "$bin" "$@"
fi
exec "$bin" "$@"
