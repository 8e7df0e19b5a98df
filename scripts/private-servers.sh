# private-servers.sh -- sourced by run-zset.sh: starting and stopping private Redis servers on fixed loopback
# ports, one, a cluster of six, or a master with replicas watched by Sentinels, plaintext or TLS only, each in a
# directory of its own under a temporary directory, with no persistence. The servers are children of the calling shell, so stop_servers finds every one by its process id.

server_pids=()
# Set by use_tls: what makes the servers speak TLS only, and what redis-cli needs to talk to them.
tls_server_args=() tls_cli_args=()

# True when something accepts connections on 127.0.0.1:$1.
port_taken() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# The major version a server program reports ("Redis server v=7.0.15 ..."), or nothing.
server_major_version() { "$1" --version 2>/dev/null | sed -n 's/.* v=\([0-9][0-9]*\)\..*/\1/p' | head -n 1; }

# use_tls DIR: makes a throwaway certificate authority in DIR with a server certificate (IP 127.0.0.1, DNS
# localhost) and a client certificate, and sets what the servers started after it need to speak TLS only (no
# plaintext port) and to require client certificates. The client's files: DIR/ca.crt, DIR/client.crt, DIR/client.key.
use_tls() {
  local dir=$1 name
  mkdir -p "$dir" || return 1
  (
    cd "$dir" || exit 1
    set -e
    for name in ca server client; do
      openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$name.key" 2>/dev/null
    done
    openssl req -x509 -new -key ca.key -out ca.crt -days 2 -subj /CN=run-zset-ca 2>/dev/null
    printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\n' >server.ext
    for name in server client; do
      openssl req -new -key "$name.key" -out "$name.csr" -subj "/CN=run-zset-$name" 2>/dev/null
      openssl x509 -req -in "$name.csr" -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 -out "$name.crt" \
        $([ "$name" = server ] && echo -extfile server.ext) 2>/dev/null
    done
  ) || { echo "run-zset: openssl could not make the certificates" >&2; return 1; }
  tls_server_args=(--tls-cert-file "$dir/server.crt" --tls-key-file "$dir/server.key"
    --tls-ca-cert-file "$dir/ca.crt" --tls-auth-clients yes)
  tls_cli_args=(--tls --cacert "$dir/ca.crt" --cert "$dir/client.crt" --key "$dir/client.key")
}

# start_server BIN DIR PORT [ARGUMENTS...]: starts BIN on 127.0.0.1:PORT (TLS only after use_tls) in DIR and waits
# until it accepts connections; on failure shows its log and returns 1.
start_server() {
  local bin=$1 dir=$2 port=$3
  shift 3
  mkdir -p "$dir"
  local listen=(--port "$port")
  ((${#tls_server_args[@]})) && listen=(--port 0 --tls-port "$port" "${tls_server_args[@]}")
  "$bin" "${listen[@]}" --bind 127.0.0.1 --save '' --appendonly no --dir "$dir" --daemonize no \
    --logfile "$dir/server.log" "$@" >"$dir/server.out" 2>&1 &
  await_server $! "$port" "$dir"
}

# await_server PID PORT DIR: waits until the server just started as PID accepts connections on PORT; on failure
# shows its output and log from DIR and returns 1.
await_server() {
  local pid=$1 port=$2 dir=$3
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

# start_sentinel BIN DIR PORT NAME MASTER_PORT: a Redis Sentinel on 127.0.0.1:PORT (TLS only after use_tls, and
# talking TLS to the servers) watching the master on MASTER_PORT under NAME, with a quorum of two. Its
# configuration file, which a Sentinel rewrites as it learns, lives in DIR.
start_sentinel() {
  local bin=$1 dir=$2 port=$3 name=$4 master=$5
  mkdir -p "$dir"
  {
    if ((${#tls_server_args[@]})); then
      printf 'port 0\ntls-port %s\ntls-replication yes\ntls-auth-clients yes\n' "$port"
      printf 'tls-cert-file %s\ntls-key-file %s\ntls-ca-cert-file %s\n' "${tls_server_args[1]}" \
        "${tls_server_args[3]}" "${tls_server_args[5]}"
    else
      printf 'port %s\n' "$port"
    fi
    printf 'bind 127.0.0.1\ndir %s\nlogfile %s\n' "$dir" "$dir/server.log"
    printf 'sentinel monitor %s 127.0.0.1 %s 2\n' "$name" "$master"
  } >"$dir/sentinel.conf"
  "$bin" "$dir/sentinel.conf" --sentinel >"$dir/server.out" 2>&1 &
  await_server $! "$port" "$dir"
}

# start_sentinels BIN CLI DIR NAME DATA_PORTS SENTINEL_PORTS: a master on the first of DATA_PORTS (a
# space-separated list), a replica of it on each of the others, and a Sentinel watching it under NAME on each of
# SENTINEL_PORTS; waited for until every replica is in sync and every Sentinel names the master (30 s at most).
# After use_tls the replicas and Sentinels talk TLS to the master too.
start_sentinels() {
  local bin=$1 cli=$2 dir=$3 name=$4 data=($5) sentinels=($6) port
  local master=${data[0]} tls_replication=()
  ((${#tls_server_args[@]})) && tls_replication=(--tls-replication yes)
  start_server "$bin" "$dir/$master" "$master" --repl-diskless-sync-delay 0 || return 1
  for port in "${data[@]:1}"; do
    start_server "$bin" "$dir/$port" "$port" --replicaof 127.0.0.1 "$master" \
      ${tls_replication[@]+"${tls_replication[@]}"} || return 1
  done
  for port in "${sentinels[@]}"; do
    start_sentinel "$bin" "$dir/$port" "$port" "$name" "$master" || return 1
  done
  local ask=("$cli" ${tls_cli_args[@]+"${tls_cli_args[@]}"} -h 127.0.0.1)
  for _ in $(seq 300); do
    local ready=1
    for port in "${data[@]:1}"; do
      "${ask[@]}" -p "$port" info replication 2>/dev/null | tr -d '\r' | grep -qx 'master_link_status:up' || ready=0
    done
    for port in "${sentinels[@]}"; do
      "${ask[@]}" -p "$port" sentinel get-master-addr-by-name "$name" 2>/dev/null | grep -qx "$master" || ready=0
    done
    ((ready)) && return 0
    sleep 0.1
  done
  echo "run-zset: the replicas and Sentinels did not settle within 30 s; what the replicas say:" >&2
  for port in "${data[@]:1}"; do "${ask[@]}" -p "$port" info replication 2>&1 | head -n 6 >&2; done
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
    info=$("$cli" ${tls_cli_args[@]+"${tls_cli_args[@]}"} -h 127.0.0.1 -p "$port" cluster info 2>/dev/null |
      tr -d '\r') || return 1
    grep -qx 'cluster_state:ok' <<<"$info" || return 1
    grep -qx 'cluster_slots_ok:16384' <<<"$info" || return 1
    grep -qx "cluster_known_nodes:$#" <<<"$info" || return 1
  done
  "$cli" ${tls_cli_args[@]+"${tls_cli_args[@]}"} --cluster check "127.0.0.1:$1" 2>/dev/null |
    grep -q 'All nodes agree about slots configuration' || return 1
}

# start_cluster BIN CLI DIR PORT...: six nodes, three masters with one replica each, formed with
# `redis-cli --cluster create` and waited for until they agree (30 s at most). After use_tls the nodes speak TLS
# to each other and to their replicas as well.
start_cluster() {
  local bin=$1 cli=$2 dir=$3 port
  shift 3
  local nodes=() tls_cluster=()
  ((${#tls_server_args[@]})) && tls_cluster=(--tls-cluster yes --tls-replication yes)
  for port in "$@"; do
    start_server "$bin" "$dir/$port" "$port" --cluster-enabled yes --cluster-config-file nodes.conf \
      --cluster-node-timeout 2000 ${tls_cluster[@]+"${tls_cluster[@]}"} || return 1
    nodes+=("127.0.0.1:$port")
  done
  if ! "$cli" ${tls_cli_args[@]+"${tls_cli_args[@]}"} --cluster create "${nodes[@]}" --cluster-replicas 1 \
    --cluster-yes >"$dir/create.log" 2>&1; then
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
    "$cli" ${tls_cli_args[@]+"${tls_cli_args[@]}"} -h 127.0.0.1 -p "$port" cluster info 2>&1 | head -n 7 >&2
  done
  return 1
}
