#!/usr/bin/env bash
# run-compare.sh -- builds kelvane_compare and runs it, in a network
# namespace of its own when the system allows one (its redis-server then
# never meets anything else on loopback; it picks a free port either way).
#
#   bench/run-compare.sh [kelvane_compare options]          the comparison
#   bench/run-compare.sh --strace [kelvane_compare options] the system-call cross-check
#   bench/run-compare.sh --tls [kelvane_tls_compare options] a TLS call against a plaintext one
#
# The cross-check runs a short pass with client and server on one CPU, a
# fixed number of calls per side, under strace (client process only: the
# server it spawns is not traced), with a marker system call before and
# after every measured call. It prints the program's own table (its
# perf-counted "sys" columns) and then what strace saw between the markers,
# per operation and side; the two should agree.
#
# KELVANE_BUILD_DIR picks the build directory (default build/). Build
# messages go to standard error.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${KELVANE_BUILD_DIR:-build}

strace_check=0 tls=0
if [[ ${1:-} == --strace ]]; then
  strace_check=1
  shift
elif [[ ${1:-} == --tls ]]; then
  tls=1
  shift
fi

target=kelvane_compare
((tls)) && target=kelvane_tls_compare
tools=()
((strace_check)) && tools+=(strace)
((tls)) && tools+=(openssl)
. bench/bench-common.sh
bench_build "$build_dir" "$target" "${tools[@]}"
bin="$build_dir/bench/$target"

if ((!strace_check)); then
  isolated "$bin" "$@"
  exit
fi

trace=$(mktemp /tmp/kelvane-compare-strace.XXXXXX)
trap 'rm -f "$trace"' EXIT
status=0
isolated strace -o "$trace" -s 256 "$bin" --placement one --rounds 1 --fixed-calls 5 --markers "$@" ||
  status=$?
echo
echo "strace: system calls per call between the markers (client process)"
awk '
  /^write\(-1, "kvmark B / {
    label = $0
    sub(/^write\(-1, "kvmark B /, "", label)
    sub(/".*/, "", label)
    inside = 1
    calls[label]++
    next
  }
  /^write\(-1, "kvmark E / { inside = 0; next }
  inside { seen[label]++ }
  END {
    for (label in calls) {
      n = split(label, part, "/")
      op = part[2]
      per_call[op, part[3]] = sprintf("%.1f", seen[label] / calls[label])
      ops[op] = 1
    }
    printf "%-26s %8s %8s\n", "operation", "sys lib", "sys raw"
    for (op in ops) printf "%-26s %8s %8s\n", op, per_call[op, "lib"], per_call[op, "raw"]
  }' "$trace" | { IFS= read -r header; echo "$header"; sort; }
exit "$status"
