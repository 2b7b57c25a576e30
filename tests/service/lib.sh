# lib.sh - sourced by the shell tests: a scratch directory, child processes
# killed on exit, bounded reads from fifos (read -t; nothing sleeps), and a
# real hspaced on a free loopback port.
WATCHDOG=15
tmp=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill -KILL "$pid" 2>/dev/null; done
    rm -rf "$tmp"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# read_line FD: one line from FD into $line, bounded by the watchdog.
read_line() {
    IFS= read -r -t "$WATCHDOG" -u "$1" line || fail "no output within ${WATCHDOG}s (expected a line)"
}

# expect_line FD TEXT: the next line from FD is TEXT.
expect_line() {
    read_line "$1"
    [ "$line" = "$2" ] || fail "got line '$line', expected '$2'"
}

# wait_exit FD PID CODE: the process writing FD ends (end of its output,
# bounded), then its exit status is CODE.
wait_exit() {
    local rc=0
    while [ "$rc" -eq 0 ]; do IFS= read -r -t "$WATCHDOG" -u "$1" line || rc=$?; done
    [ "$rc" -gt 128 ] && fail "process $2 did not end within ${WATCHDOG}s"
    wait "$2"
    local got=$?
    [ "$got" -eq "$3" ] || fail "process $2 exited $got, expected $3"
}

# expect_exit CODE COMMAND...: runs the command (bounded by the watchdog),
# checks its exit status; its output is in $tmp/out and $tmp/err.
expect_exit() {
    local want=$1
    shift
    timeout -k 5 "$WATCHDOG" "$@" >"$tmp/out" 2>"$tmp/err" </dev/null
    local got=$?
    [ "$got" -eq 124 ] && fail "$* did not end within ${WATCHDOG}s"
    [ "$got" -eq "$want" ] || fail "$* exited $got, expected $want; stderr: $(cat "$tmp/err")"
}
# expect_err TEXT: the last command's stderr contains TEXT.
expect_err() {
    grep -qF -- "$1" "$tmp/err" || fail "stderr lacks '$1': $(cat "$tmp/err")"
}

# start_hspaced HSPACED [ARGS...]: runs the service on a port of its
# choosing (quiet unless ARGS say otherwise; its stderr goes to
# $tmp/hspaced.N.log); sets $svc (pid), $svc_fd (its output) and $url.
nservices=0
start_hspaced() {
    local bin=$1
    shift
    nservices=$((nservices + 1))
    mkfifo "$tmp/service.$nservices"
    "$bin" --port 0 "${@---quiet}" >"$tmp/service.$nservices" 2>"$tmp/hspaced.$nservices.log" &
    svc=$!
    pids+=("$svc")
    exec {svc_fd}<"$tmp/service.$nservices"
    read_line "$svc_fd"
    case $line in
    "hspaced listening on tcp://127.0.0.1:"*) url=${line#hspaced listening on } ;;
    *) fail "unexpected first line from hspaced: $line" ;;
    esac
}
