# bench-common.sh -- what the bench run scripts share, sourced from the
# project's root: a build directory with the target made, and a private
# network namespace to run in.

# bench_build DIR TARGET [TOOL...]: installs what is missing through the
# project's set-up (hiredis, OpenSSL, the compiler, redis-server and any
# further TOOL), configures DIR with the project's defaults if it is new
# (an existing one keeps its settings) and builds TARGET there. Build
# messages go to standard error.
bench_build() {
  local dir=$1 target=$2 tool missing=0
  shift 2
  for tool in g++ cmake redis-server pkg-config "$@"; do
    command -v "$tool" >/dev/null || missing=1
  done
  ((missing)) || pkg-config --exists hiredis || missing=1
  ((missing)) || pkg-config --exists openssl || missing=1
  if ((missing)); then
    scripts/setup.sh --tests "$dir"
  fi
  if [[ ! -f $dir/CMakeCache.txt ]]; then
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2
  fi
  cmake --build "$dir" -j2 --target "$target" >&2
}

# isolated COMMAND...: runs it inside a private network namespace with
# loopback up (its redis-server then never meets anything else on
# loopback), or as it is when unshare is not permitted here.
isolated() {
  if unshare -n true 2>/dev/null && command -v ip >/dev/null; then
    unshare -n bash -c 'ip link set lo up && exec "$@"' isolated "$@"
  else
    "$@"
  fi
}
