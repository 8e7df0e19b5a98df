# private-servers.sh -- sourced by run-zset.sh: starting and stopping private Redis servers on fixed loopback
# ports, one or a cluster of six, each in a directory of its own under a temporary directory, with no
# persistence. The servers are children of the calling shell, so stop_servers finds every one by its process id.

server_pids=()

# True when something accepts connections on 127.0.0.1:$1.
port_taken() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# The major version a server program reports ("Redis server v=7.0.15 ..."), or nothing.
server_major_version() { "$1" --version 2>/dev/null | sed -n 's/.* v=\([0-9][0-9]*\)\..*/\1/p' | head -n 1; }

# start_server BIN DIR PORT [ARGUMENTS...]: starts BIN on 127.0.0.1:PORT in DIR and waits until it accepts
# connections; on failure shows its log and returns 1.
start_server() {
  local bin=$1 dir=$2 port=$3
  shift 3
  mkdir -p "$dir"
  "$bin" --port "$port" --bind 127.0.0.1 --save '' --appendonly no --dir "$dir" --daemonize no \
    --logfile "$dir/server.log" "$@" >"$dir/server.out" 2>&1 &
  local pid=$!
  server_pids+=("$pid")
  for _ in $(seq 200); do
    port_taken "$port" && return 0
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  echo "run-zset: the server on port $port did not start; its output and log:" >&2
  cat "$dir/server.out" "$dir/server.log" >&2 2>/dev/null
  return 1
}

# stop_servers: SIGTERM to every server started here, SIGKILL to any still there after 15 s.
stop_servers() {
  local pid
  ((${#server_pids[@]})) || return 0
  kill -TERM "${server_pids[@]}" 2>/dev/null
  for _ in $(seq 150); do
    local alive=0
    for pid in "${server_pids[@]}"; do kill -0 "$pid" 2>/dev/null && alive=1; done
    ((alive)) || break
    sleep 0.1
  done
  kill -KILL "${server_pids[@]}" 2>/dev/null
  wait "${server_pids[@]}" 2>/dev/null
  server_pids=()
}

# cluster_formed CLI PORT...: every node reports cluster_state:ok, all slots served and every node known, and the
# nodes agree on which node serves which slots.
cluster_formed() {
  local cli=$1 port info
  shift
  for port in "$@"; do
    info=$("$cli" -h 127.0.0.1 -p "$port" cluster info 2>/dev/null | tr -d '\r') || return 1
    grep -qx 'cluster_state:ok' <<<"$info" || return 1
    grep -qx 'cluster_slots_ok:16384' <<<"$info" || return 1
    grep -qx "cluster_known_nodes:$#" <<<"$info" || return 1
  done
  "$cli" --cluster check "127.0.0.1:$1" 2>/dev/null | grep -q 'All nodes agree about slots configuration' || return 1
}

# start_cluster BIN CLI DIR PORT...: six nodes, three masters with one replica each, formed with
# `redis-cli --cluster create` and waited for until they agree (30 s at most).
start_cluster() {
  local bin=$1 cli=$2 dir=$3 port
  shift 3
  local nodes=()
  for port in "$@"; do
    start_server "$bin" "$dir/$port" "$port" --cluster-enabled yes --cluster-config-file nodes.conf \
      --cluster-node-timeout 2000 || return 1
    nodes+=("127.0.0.1:$port")
  done
  if ! "$cli" --cluster create "${nodes[@]}" --cluster-replicas 1 --cluster-yes >"$dir/create.log" 2>&1; then
    echo "run-zset: redis-cli --cluster create failed:" >&2
    cat "$dir/create.log" >&2
    return 1
  fi
  for _ in $(seq 300); do
    cluster_formed "$cli" "$@" && return 0
    sleep 0.1
  done
  echo "run-zset: the cluster did not settle within 30 s; what the nodes say:" >&2
  for port in "$@"; do
    echo "--- 127.0.0.1:$port" >&2
    "$cli" -h 127.0.0.1 -p "$port" cluster info 2>&1 | head -n 7 >&2
  done
  return 1
}
