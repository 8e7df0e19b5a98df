#!/usr/bin/env bash
# run-zset.sh -- builds the library, zset and zset-report, gives zset a server on 127.0.0.1:12345 (a fresh private
# Redis by default), runs zset with its transcript passed through untouched on standard output, and judges the
# transcript with zset-report. Everything else goes to standard error. See usage() for options and exit statuses.
set -uo pipefail

usage() {
  cat <<'USAGE'
usage: scripts/run-zset.sh [OPTIONS]

Builds libkelvane.so.1, zset and zset-report, starts a private Redis on
127.0.0.1:12345 (temporary directory, no persistence), runs zset against it and
stops it again. zset's transcript goes to standard output untouched; set-up
messages and the list of failed cases go to standard error.

  --library DIR        run zset against DIR/libkelvane.so.1 instead of the library
                       built here (any library with that soname and interface)
  --server-bin PATH    the server program to start (default: redis-server on PATH);
                       a name without a slash is looked up on PATH; needs Redis
                       7.0 or newer, or a server that speaks like it
  --existing-server    start nothing: use whatever listens on 127.0.0.1:12345
                       (its time-to-live cases need keys zset has not made before:
                       give it an empty database)
  --cluster            start a private Redis Cluster instead: 3 masters and 3
                       replicas on 127.0.0.1:12345-12350 (bus ports 22345-22350)
  --sentinel           start a master watched by Redis Sentinel instead: the master
                       on 127.0.0.1:12346, replicas on 12347 and 12348, Sentinels on
                       12345, 12349 and 12350; zset's server, 127.0.0.1:12345, is a
                       Sentinel, and zset names the master (kvmaster) through
                       KELVANE_SENTINEL_MASTER in its environment
  --tls                the servers speak TLS only (no plaintext port) and require
                       client certificates, from a throwaway CA made with openssl in
                       the temporary directory; zset gets them through KELVANE_TLS_*
                       in its environment (with --cluster: TLS between nodes too;
                       with --sentinel: the Sentinels too, and to the servers)
  --junit FILE         write a JUnit XML report, one testcase per zset case (FILE is
                       replaced; the script stops first if it cannot write it)
  --timeout SECONDS    stop zset if it runs longer (default 600)
  --build-dir DIR      the build directory (default: build)
  --no-build           build nothing and install nothing: use the zset and
                       zset-report that the build directory already holds
  -h, --help           show this text

Exit status:
  0  all 68 cases passed (and no check failed outside a case)
  1  a case failed, or the run was incomplete: fewer than 68 verdicts, no
     summary, zset crashed or ran past --timeout
  2  could not set up: bad option, a port already taken, the build failed,
     the server would not start, the report cannot be written (all found
     before zset runs)
USAGE
}

fail_setup() {
  echo "run-zset: $*" >&2
  exit 2
}

# Paths on the command line are the caller's, relative to where they ran us.
caller_dir=$PWD
absolute() { case $1 in /*) printf '%s\n' "$1" ;; *) printf '%s\n' "$caller_dir/$1" ;; esac; }

library="" server_bin="" existing=0 cluster=0 sentinel=0 tls=0 junit="" timeout_s=600 build_dir="" build=1
while (($#)); do
  case $1 in
    -h | --help) usage; exit 0 ;;
    --library | --server-bin | --junit | --timeout | --build-dir)
      (($# >= 2)) || fail_setup "$1 needs a value (see --help)"
      case $1 in
        --library) library=$(absolute "$2") ;;
        --server-bin) server_bin=$2 ;;
        --junit) junit=$(absolute "$2") ;;
        --timeout) timeout_s=$2 ;;
        --build-dir) build_dir=$(absolute "$2") ;;
      esac
      shift ;;
    --existing-server) existing=1 ;;
    --cluster) cluster=1 ;;
    --sentinel) sentinel=1 ;;
    --tls) tls=1 ;;
    --no-build) build=0 ;;
    *) fail_setup "unknown option $1 (see --help)" ;;
  esac
  shift
done
[[ $timeout_s =~ ^[1-9][0-9]*$ ]] || fail_setup "--timeout takes a whole number of seconds"
((existing && (cluster || sentinel || ${#server_bin}))) &&
  fail_setup "--existing-server starts nothing: drop --cluster, --sentinel and --server-bin"
((cluster && sentinel)) && fail_setup "--cluster and --sentinel are two kinds of store: choose one"
((existing && tls)) && fail_setup "--tls makes certificates for the servers it starts: drop --existing-server"
# A server program named with a slash is a path from where the caller stands; a bare name is looked up on PATH, as
# a shell would.
if [ -n "$server_bin" ]; then
  case $server_bin in
    */*) server_bin=$(absolute "$server_bin") ;;
    *) found=$(type -P -- "$server_bin") || fail_setup "--server-bin: no program $server_bin on PATH"
       server_bin=$(absolute "$found") ;;
  esac
fi

cd "$(dirname "$0")/.." || exit 2
source scripts/private-servers.sh
build_dir=${build_dir:-$PWD/build}
# The report must be writable before anything runs: the file is made once and removed again, which also takes away
# an earlier run's report.
if [ -n "$junit" ]; then
  [ ! -d "$junit" ] || fail_setup "--junit names a directory, $junit: give a file name"
  { : >"$junit"; } 2>/dev/null || fail_setup "cannot write the report $junit"
  rm -f "$junit"
fi

ports=(12345)
((cluster || sentinel)) && ports=(12345 12346 12347 12348 12349 12350)
# With --sentinel: the master first, then its replicas; the Sentinels, 12345 (zset's) among them.
sentinel_data_ports="12346 12347 12348" sentinel_ports="12345 12349 12350" sentinel_master=kvmaster
ports_free() {
  local port
  for port in "${ports[@]}"; do
    port_taken "$port" && fail_setup "something already listens on 127.0.0.1:$port; stop it and run again"
    ((cluster)) && port_taken $((port + 10000)) &&
      fail_setup "something already listens on 127.0.0.1:$((port + 10000)), a cluster bus port; stop it and run again"
  done
}
((existing)) || ports_free

# ---- build -------------------------------------------------------------------------------------------------
if ((build)); then
  setup_options=()
  if ((!existing)) && [ -z "$server_bin" ]; then
    setup_options+=(--server)
  elif ((cluster || sentinel)); then
    setup_options+=(--cli)
  fi
  ((tls)) && setup_options+=(--tls)
  scripts/setup.sh ${setup_options[@]+"${setup_options[@]}"} "$build_dir" -DKELVANE_TESTS=OFF -DKELVANE_BENCH=OFF ||
    fail_setup "the build failed"
fi
zset=$build_dir/src/zset
report=$build_dir/report/zset-report
[ -x "$zset" ] || fail_setup "no zset in $build_dir (build first, or leave out --no-build)"
[ -x "$report" ] || fail_setup "no zset-report in $build_dir (build first, or leave out --no-build)"

# ---- the library zset runs against --------------------------------------------------------------------------
# zset's search path is a DT_RUNPATH, which LD_LIBRARY_PATH overrides; the loader's own answer confirms it.
zset_env=()
if [ -n "$library" ]; then
  [ -f "$library/libkelvane.so.1" ] || fail_setup "there is no libkelvane.so.1 in $library"
  zset_env=("LD_LIBRARY_PATH=$library${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}")
fi
zset_libs=$(env ${zset_env[@]+"${zset_env[@]}"} ldd "$zset" 2>/dev/null)
loaded=$(awk '$1 == "libkelvane.so.1" { print $3 }' <<<"$zset_libs")
[ -n "$loaded" ] && [ -e "$loaded" ] || fail_setup "zset finds no libkelvane.so.1 to load"
if [ -n "$library" ] && [ "$(realpath "$loaded")" != "$(realpath "$library/libkelvane.so.1")" ]; then
  fail_setup "zset would load $loaded, not the library in $library"
fi
echo "run-zset: zset runs against $loaded" >&2

# ---- the server ----------------------------------------------------------------------------------------------
work=$(mktemp -d) || fail_setup "cannot make a temporary directory"
cleanup() {
  stop_servers
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

if ((existing)); then
  port_taken 12345 || fail_setup "--existing-server: nothing listens on 127.0.0.1:12345"
  echo "run-zset: using the server that listens on 127.0.0.1:12345" >&2
else
  if [ -z "$server_bin" ]; then
    server_bin=$(cd "$caller_dir" && type -P redis-server) ||
      fail_setup "no redis-server on PATH (or give --server-bin)"
    server_bin=$(absolute "$server_bin")
  fi
  [ -x "$server_bin" ] || fail_setup "cannot run the server program $server_bin"
  major=$(server_major_version "$server_bin")
  if [ -n "$major" ] && ((major < 7)); then
    fail_setup "$server_bin is version $major; the library needs Redis 7.0 or newer (server functions)"
  fi
  ports_free  # once more: the build may have taken a while
  if ((tls)); then
    command -v openssl >/dev/null || fail_setup "--tls needs the openssl command"
    use_tls "$work/tls" || fail_setup "could not make the TLS certificates"
    zset_env+=(KELVANE_TLS_MODE=verify-full "KELVANE_TLS_CA_FILE=$work/tls/ca.crt"
      "KELVANE_TLS_CERT_FILE=$work/tls/client.crt" "KELVANE_TLS_KEY_FILE=$work/tls/client.key")
    echo "run-zset: TLS only, client certificates required; zset checks the servers' (verify-full)" >&2
  fi
  if ((cluster || sentinel)); then
    cli=$(dirname "$server_bin")/redis-cli
    [ -x "$cli" ] || cli=$(command -v redis-cli) || fail_setup "no redis-cli to form the cluster with or to ask the Sentinels"
  fi
  if ((cluster)); then
    echo "run-zset: starting a Redis Cluster on 127.0.0.1:12345-12350 ($server_bin)" >&2
    start_cluster "$server_bin" "$cli" "$work" "${ports[@]}" || fail_setup "the cluster would not start"
  elif ((sentinel)); then
    echo "run-zset: starting a master on 127.0.0.1:12346, replicas on 12347-12348 and Sentinels on 12345, 12349" \
      "and 12350, watching it as $sentinel_master ($server_bin)" >&2
    start_sentinels "$server_bin" "$cli" "$work" "$sentinel_master" "$sentinel_data_ports" "$sentinel_ports" ||
      fail_setup "the master, its replicas and the Sentinels would not start"
    zset_env+=("KELVANE_SENTINEL_MASTER=$sentinel_master")
  else
    echo "run-zset: starting $server_bin on 127.0.0.1:12345" >&2
    start_server "$server_bin" "$work/server" 12345 || fail_setup "the server would not start"
  fi
fi

# ---- the run -------------------------------------------------------------------------------------------------
# Into a pipe, zset's standard output is block-buffered, so a zset stopped by --timeout or by a crash would take its
# last 4 KiB of lines with it, often the whole transcript. stdbuf (coreutils) makes the stream line-buffered from
# outside: it preloads libstdbuf.so, which sets stdout's buffering before main (iostreams write through stdio
# too), so every line zset printed reaches the transcript whatever stops it. stdbuf puts its library after the
# caller's LD_PRELOAD; a sanitizer build's AddressSanitizer runtime must precede everything preloaded, so it goes
# first. The environment is zset's alone (env runs under timeout).
zset_command=("$zset")
if command -v stdbuf >/dev/null; then
  zset_command=(stdbuf -oL "$zset")
  asan_runtime=$(awk '$1 ~ /^libasan[.]so/ { print $3 }' <<<"$zset_libs")
  [ -z "$asan_runtime" ] || zset_env+=("LD_PRELOAD=$asan_runtime${LD_PRELOAD:+:$LD_PRELOAD}")
else
  echo "run-zset: no stdbuf here: if zset is stopped, the lines it printed last are lost" >&2
fi

# The transcript goes to standard output as zset writes it, and to a file for zset-report. tee keeps writing the
# file even if the reader of standard output goes away.
timeout --foreground --kill-after=10 "$timeout_s" env ${zset_env[@]+"${zset_env[@]}"} "${zset_command[@]}" |
  tee --output-error=warn-nopipe "$work/transcript"
zset_status=${PIPESTATUS[0]}
((zset_status == 124)) && echo "run-zset: zset ran longer than $timeout_s s and was stopped" >&2

report_options=(--zset-status "$zset_status")
[ -z "$junit" ] || report_options+=(--junit "$junit")
# A preload the caller gives is for zset and the library; zset-report, built like zset, runs without it.
env -u LD_PRELOAD "$report" "${report_options[@]}" "$work/transcript" >&2
verdict=$?
((verdict <= 1)) || fail_setup "zset-report could not judge the run"
exit "$verdict"
