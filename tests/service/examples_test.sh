#!/bin/bash
# examples_test.sh HSPACED EXAMPLES_DIR - the example programs against a
# real hspaced process: the quickstart's transcript ends in success, the
# threads example agrees, the subscriber prints the changes another program
# makes and stops on SIGINT. Reads are bounded (read -t); nothing sleeps.
set -u
HSPACED=$1
EXAMPLES=$2
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

# expect_line FD TEXT: the next line from FD, within the watchdog, is TEXT.
expect_line() {
    IFS= read -r -t "$WATCHDOG" -u "$1" line || fail "no line within ${WATCHDOG}s (expected '$2')"
    [ "$line" = "$2" ] || fail "got line '$line', expected '$2'"
}

mkfifo "$tmp/service" "$tmp/subscriber"
"$HSPACED" --port 0 --quiet >"$tmp/service" &
svc=$!
pids+=("$svc")
exec {svc_fd}<"$tmp/service"
IFS= read -r -t "$WATCHDOG" -u "$svc_fd" line || fail "hspaced did not start"
url=${line#hspaced listening on }

timeout -k 5 "$WATCHDOG" "$EXAMPLES/quickstart" "$url" >"$tmp/quickstart" 2>&1 || { cat "$tmp/quickstart"; fail "quickstart failed"; }
grep -q "quickstart: every step gave the expected result" "$tmp/quickstart" || fail "quickstart's verdict missing"
grep -q "event: post image 3/3: fruit/cherry" "$tmp/quickstart" || fail "quickstart shows no image"
grep -q "event: notification (removed): fruit/banana" "$tmp/quickstart" || fail "quickstart shows no removal"
# Run twice: the quickstart leaves the store as it found it.
timeout -k 5 "$WATCHDOG" "$EXAMPLES/quickstart" "$url" >"$tmp/quickstart" 2>&1 || { cat "$tmp/quickstart"; fail "second quickstart failed"; }

timeout -k 5 "$WATCHDOG" "$EXAMPLES/threads" "$url" 50 >"$tmp/threads" 2>&1 || { cat "$tmp/threads"; fail "threads failed"; }

# The subscriber sees the quickstart's changes to fruit/*, in order.
"$EXAMPLES/subscriber" "$url" 'fruit/*' >"$tmp/subscriber" 2>/dev/null &
sub=$!
pids+=("$sub")
exec {sub_fd}<"$tmp/subscriber"
expect_line "$sub_fd" "image: nothing stored under fruit/*"
timeout -k 5 "$WATCHDOG" "$EXAMPLES/quickstart" "$url" >/dev/null 2>&1 || fail "quickstart beside the subscriber failed"
for want in "stored fruit/apple = red" "stored fruit/banana = yellow" "stored fruit/cherry = dark red" \
    "stored fruit/durian = spiky" "stored fruit/apple = green" "removed fruit/banana" "removed fruit/apple" \
    "removed fruit/cherry" "removed fruit/durian"; do
    expect_line "$sub_fd" "$want"
done
kill -INT "$sub"
rc=0
while [ "$rc" -eq 0 ]; do IFS= read -r -t "$WATCHDOG" -u "$sub_fd" line || rc=$?; done
[ "$rc" -gt 128 ] && fail "subscriber did not stop on SIGINT"
wait "$sub" || fail "subscriber exited $? after SIGINT"

kill -TERM "$svc"
rc=0
while [ "$rc" -eq 0 ]; do IFS= read -r -t "$WATCHDOG" -u "$svc_fd" line || rc=$?; done
[ "$rc" -gt 128 ] && fail "hspaced did not stop on SIGTERM"
wait "$svc" || fail "hspaced exited $? on SIGTERM"
echo "examples_test: all passed"
