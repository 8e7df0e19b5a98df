#!/usr/bin/env bash
# setup.sh -- installs whatever the build and the tests need and is missing
# (Debian packages), then builds into build/ (or the directory given as $1,
# with any further arguments passed to CMake). Progress goes to standard
# error, so that a caller's standard output stays its own.
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${1:-build}
shift || true

packages=(g++ cmake make pkg-config redis-server libhiredis-dev libgtest-dev
          libbenchmark-dev valgrind strace iproute2)
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

echo "setup: building in $build_dir" >&2
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >&2
cmake --build "$build_dir" -j"$(nproc)" >&2
