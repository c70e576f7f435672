#!/usr/bin/env bash
# Starts or stops a ring of zlkd nodes on 127.0.0.1.
#
#   scripts/local-cluster.sh start [-n NODES] [-p BASE_PORT] [-m processes|single] [-b BUILD_DIR] [-- ZLKD_ARGS...]
#   scripts/local-cluster.sh stop  [-b BUILD_DIR]
#
# start runs NODES nodes (default 3) on ports BASE_PORT (default 2836) and up, either as one zlkd
# process per node (-m processes, the default) or as one process running them all (-m single), waits
# until every port accepts connections, and prints the cluster's URI: zlk://127.0.0.1:P1,...
# Arguments after "--" go to every zlkd (for instance --replication 2 --enable-stop).
# The pids and the nodes' logs are kept in BUILD_DIR/local-cluster/ (default BUILD_DIR: build); stop
# ends the processes listed there.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

command=${1:-}
[ -n "$command" ] || usage
shift
nodes=3
base_port=2836
mode=processes
build=build
while [ $# -gt 0 ]; do
    case "$1" in
        -n) nodes=$2; shift 2 ;;
        -p) base_port=$2; shift 2 ;;
        -m) mode=$2; shift 2 ;;
        -b) build=$2; shift 2 ;;
        --) shift; break ;;
        *) usage ;;
    esac
done
extra=("$@")
state=$build/local-cluster
pidfile=$state/pids

stop_cluster() {
    [ -f "$pidfile" ] || return 0
    while read -r pid; do
        kill -TERM "$pid" 2>/dev/null || true
    done <"$pidfile"
    # zlkd exits on SIGTERM once its nodes are closed; give it a moment, then insist.
    for _ in $(seq 50); do
        alive=0
        while read -r pid; do
            kill -0 "$pid" 2>/dev/null && alive=1
        done <"$pidfile"
        [ $alive -eq 0 ] && break
        sleep 0.1
    done
    while read -r pid; do
        kill -KILL "$pid" 2>/dev/null || true
    done <"$pidfile"
    rm -f "$pidfile"
}

port_open() {
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

case "$command" in
    start)
        zlkd=$build/node/zlkd
        if [ ! -x "$zlkd" ]; then
            echo "local-cluster: $zlkd not found; build the zlkd target first" >&2
            exit 1
        fi
        case "$nodes" in '' | *[!0-9]*) echo "local-cluster: -n takes a number" >&2; exit 2 ;; esac
        case "$base_port" in '' | *[!0-9]*) echo "local-cluster: -p takes a port" >&2; exit 2 ;; esac
        if [ -s "$pidfile" ]; then
            echo "local-cluster: already running (see $pidfile); stop it first" >&2
            exit 1
        fi
        mkdir -p "$state"
        : >"$pidfile"
        common=(--cluster "$nodes" --base-port "$base_port" "${extra[@]}")
        case "$mode" in
            processes)
                for ((i = 0; i < nodes; i++)); do
                    "$zlkd" "${common[@]}" --member "$i" >"$state/node-$i.log" 2>&1 &
                    echo $! >>"$pidfile"
                done
                ;;
            single)
                "$zlkd" "${common[@]}" >"$state/cluster.log" 2>&1 &
                echo $! >>"$pidfile"
                ;;
            *) usage ;;
        esac
        uri=zlk://
        for ((i = 0; i < nodes; i++)); do
            port=$((base_port + i))
            for _ in $(seq 200); do
                port_open "$port" && break
                sleep 0.1
            done
            if ! port_open "$port"; then
                echo "local-cluster: nothing listens on port $port; logs in $state" >&2
                stop_cluster
                exit 1
            fi
            [ $i -gt 0 ] && uri+=,
            uri+=127.0.0.1:$port
        done
        echo "$uri"
        ;;
    stop)
        stop_cluster
        ;;
    *)
        usage
        ;;
esac
