#!/usr/bin/env bash
# setup.sh -- installs the Debian packages a build needs and lacks, then configures and builds.
#
#   scripts/setup.sh [--tests] [--server] [--cli] [--tls] BUILD_DIR [CMAKE_ARGUMENTS...]
#
# Always: what builds the library, zset and zset-report (compiler, CMake, pkg-config, hiredis, OpenSSL).
#   --server  also redis-server (and redis-cli), for runs against Debian's Redis
#   --cli     also redis-cli alone, for a cluster of another server program
#   --tls     also the openssl command, which makes the certificates of a TLS run
#   --tests   also what the tests and benchmarks need (GoogleTest, Google Benchmark, valgrind, libxml2, dpkg-dev,
#             file, redis-server, strace, iproute2, lintian, openssl)
# On a machine without apt (another distribution, a prepared CI image) nothing is installed and the build uses
# what is there. Progress goes to standard error, so that a caller's standard output stays its own.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(g++ cmake make pkg-config libhiredis-dev libssl-dev)
while (($#)); do
  case $1 in
    --tests) packages+=(redis-server redis-tools libgtest-dev libbenchmark-dev valgrind libxml2-dev dpkg-dev file
                      strace iproute2 lintian openssl) ;;
    --server) packages+=(redis-server redis-tools) ;;
    --cli) packages+=(redis-tools) ;;
    --tls) packages+=(openssl) ;;
    -*) echo "setup: unknown option $1" >&2; exit 2 ;;
    *) break ;;
  esac
  shift
done
build_dir=${1:?"usage: scripts/setup.sh [--tests] [--server] [--cli] [--tls] BUILD_DIR [CMAKE_ARGUMENTS...]"}
shift

if command -v dpkg-query >/dev/null && command -v apt-get >/dev/null; then
  missing=()
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  if ((${#missing[@]})); then
    echo "setup: installing ${missing[*]}" >&2
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq >&2
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
  fi
else
  echo "setup: no apt here; building with what is installed (needs: ${packages[*]})" >&2
fi

echo "setup: building in $build_dir" >&2
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >&2
cmake --build "$build_dir" -j"$(nproc)" >&2
