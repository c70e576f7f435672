#!/usr/bin/env bash
# Compares time-series push and hourly aggregation with PostgreSQL on the same generated rows.
#
#   scripts/bench-ts-vs-postgres.sh [-b BUILD_DIR] [ROWS]
#
# Starts a throwaway PostgreSQL (initdb -A trust in a temporary directory, unix socket only) and a
# one-node zlkd, runs BUILD_DIR/bench/bench_ts_vs_postgres (default BUILD_DIR: build, ROWS: 10000000),
# then stops both and deletes the temporary directory, also on failure or interruption. Build the
# bench_ts_vs_postgres and zlkd targets first. Run as root, PostgreSQL runs as the postgres user.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

build=build
rows=10000000
while [ $# -gt 0 ]; do
    case "$1" in
        -b) [ $# -ge 2 ] || usage; build=$2; shift 2 ;;
        -h | --help) usage ;;
        -*) usage ;;
        *) rows=$1; shift ;;
    esac
done
case "$rows" in '' | *[!0-9]*) echo "bench-ts-vs-postgres: ROWS must be a number" >&2; exit 2 ;; esac

bench=$build/bench/bench_ts_vs_postgres
zlkd=$build/node/zlkd
for f in "$bench" "$zlkd"; do
    if [ ! -x "$f" ]; then
        echo "bench-ts-vs-postgres: $f not found; build it first (bench_ts_vs_postgres needs libpq)" >&2
        exit 1
    fi
done
for tool in initdb pg_ctl; do
    command -v "$tool" >/dev/null || { echo "bench-ts-vs-postgres: $tool not on PATH" >&2; exit 1; }
done

work=$(mktemp -d /tmp/bench-ts-vs-postgres.XXXXXX)
pgdata=$work/pgdata
sockdir=$work/sock
# A private state directory for local-cluster.sh, so a cluster another run keeps in BUILD_DIR is left alone.
cluster=$work/cluster
mkdir -p "$sockdir" "$cluster/node"
ln -s "$(realpath "$zlkd")" "$cluster/node/zlkd"

# PostgreSQL refuses to run as root.
as_pg=()
pguser=$(id -un)
if [ "$(id -u)" -eq 0 ]; then
    pguser=postgres
    as_pg=(runuser -u postgres --)
    chown -R postgres "$work"
fi

pg_started=0
zlk_started=0
bench_pid=
cleanup() {
    status=$?
    set +e
    if [ -n "$bench_pid" ] && kill -0 "$bench_pid" 2>/dev/null; then
        kill -TERM "$bench_pid"
        wait "$bench_pid"
    fi
    if [ $zlk_started -eq 1 ]; then
        scripts/local-cluster.sh stop -b "$cluster"
    fi
    if [ $pg_started -eq 1 ]; then
        "${as_pg[@]}" pg_ctl -D "$pgdata" -m fast -w stop >/dev/null
    fi
    if [ $status -ne 0 ]; then
        for log in "$work/postgres.log" "$cluster"/local-cluster/*.log; do
            [ -s "$log" ] && { echo "---- last lines of $log" >&2; tail -n 20 "$log" >&2; }
        done
    fi
    rm -rf "$work"
    exit $status
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

port_open() {
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

free_port() {
    local p
    for p in $(seq "$1" $(($1 + 200))); do
        port_open "$p" || { echo "$p"; return 0; }
    done
    return 1
}

# The PostgreSQL socket lives in a private directory, so any port number does.
pgport=55432
"${as_pg[@]}" initdb -A trust -U "$pguser" -D "$pgdata" --no-sync >"$work/initdb.log" 2>&1 ||
    { cat "$work/initdb.log" >&2; exit 1; }
pg_started=1
"${as_pg[@]}" pg_ctl -D "$pgdata" -l "$work/postgres.log" -w \
    -o "-k $sockdir -p $pgport -c listen_addresses=''" start >/dev/null

zlkport=$(free_port 28360)
zlk_started=1
uri=$(scripts/local-cluster.sh start -n 1 -p "$zlkport" -b "$cluster")

echo "zlk: $uri (zlkd $zlkd); PostgreSQL: socket $sockdir port $pgport"
# In the background, so that a signal reaches the traps without waiting for the run to end.
"$bench" "$uri" "host=$sockdir port=$pgport dbname=postgres user=$pguser" "$rows" &
bench_pid=$!
wait "$bench_pid"
