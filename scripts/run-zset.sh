#!/usr/bin/env bash
# run-zset.sh -- sets up and builds, then runs zset against a fresh private
# Redis on 127.0.0.1:12345 (temporary directory, no persistence), so the
# time-to-live cases always meet new keys. zset's output is passed through
# untouched; everything else goes to standard error.
set -euo pipefail
cd "$(dirname "$0")/.."

port=12345
port_taken() { (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; }

if port_taken; then
  echo "run-zset: something already listens on 127.0.0.1:$port; stop it and run again." >&2
  exit 1
fi

scripts/setup.sh build

dir=$(mktemp -d)
stop_server() {
  if [ -f "$dir/redis.pid" ]; then
    kill "$(cat "$dir/redis.pid")" 2>/dev/null || true
    for _ in $(seq 50); do port_taken || break; sleep 0.1; done
  fi
  rm -rf "$dir"
}
trap stop_server EXIT

if port_taken; then
  echo "run-zset: something started listening on 127.0.0.1:$port during the build; stop it and run again." >&2
  exit 1
fi
redis-server --port "$port" --bind 127.0.0.1 --save '' --appendonly no --dir "$dir" \
  --daemonize yes --pidfile "$dir/redis.pid" --logfile "$dir/redis.log" >&2
for _ in $(seq 100); do port_taken && break; sleep 0.05; done
if ! port_taken; then
  echo "run-zset: the private Redis did not start; see its log:" >&2
  cat "$dir/redis.log" >&2
  exit 1
fi

build/src/zset
