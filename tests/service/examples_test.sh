#!/bin/bash
# examples_test.sh HSPACED EXAMPLES_DIR - the example programs against a
# real hspaced process: the quickstart's transcript ends in success, the
# threads example agrees, the subscriber prints the changes another program
# makes and stops on SIGINT. Reads are bounded (read -t); nothing sleeps.
set -u
HSPACED=$1
EXAMPLES=$2
. "$(dirname "$0")/lib.sh"

mkfifo "$tmp/subscriber"
start_hspaced "$HSPACED"

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
wait_exit "$sub_fd" "$sub" 0

# C++: the quickstart, and a subscriber that lives through a restart of
# hspaced on the same port, then sees the quickstart's six changes.
timeout -k 5 "$WATCHDOG" "$EXAMPLES/quickstart_cpp" "$url" >"$tmp/quickstart_cpp" 2>&1 || { cat "$tmp/quickstart_cpp"; fail "quickstart_cpp failed"; }
grep -q "quickstart-cpp: ok" "$tmp/quickstart_cpp" || fail "quickstart_cpp's verdict missing"
# until_line FD TEXT: lines from FD up to TEXT (state and image lines come
# from two threads, so their order is not fixed).
until_line() {
    while read_line "$1"; do [ "$line" = "$2" ] && return; done
}
mkfifo "$tmp/resync"
"$EXAMPLES/subscriber_resync" "$url" 'greeting/*' 6 >"$tmp/resync" 2>/dev/null &
resync=$!
pids+=("$resync")
exec {resync_fd}<"$tmp/resync"
until_line "$resync_fd" "image: 0 object(s)"
port=${url##*:}
kill -TERM "$svc"
wait_exit "$svc_fd" "$svc" 0
until_line "$resync_fd" "state reconnecting: the service closed the connection"
rm -f "$tmp/service"
mkfifo "$tmp/service"
"$HSPACED" --port "$port" --quiet >"$tmp/service" &
svc=$!
pids+=("$svc")
exec {svc_fd}<"$tmp/service"
read_line "$svc_fd"
until_line "$resync_fd" "image (resync): 0 object(s)"
timeout -k 5 "$WATCHDOG" "$EXAMPLES/quickstart_cpp" "$url" >/dev/null 2>&1 || fail "quickstart_cpp beside the subscriber failed"
until_line "$resync_fd" "change 2: greeting/fr"
wait_exit "$resync_fd" "$resync" 0

kill -TERM "$svc"
wait_exit "$svc_fd" "$svc" 0
echo "examples_test: all passed"
