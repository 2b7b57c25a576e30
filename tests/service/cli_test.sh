#!/bin/bash
# cli_test.sh HSPACED HSPACE - the hspace command-line client end to end
# against a real hspaced process on a free loopback port.
#
# Output of the long-running processes is read through fifos with bounded
# reads (read -t); a process that does not answer within WATCHDOG seconds
# fails the test (lib.sh). Nothing sleeps.
set -u
HSPACED=$1
HSPACE=$2
. "$(dirname "$0")/lib.sh"

# expect_exit CODE COMMAND...: runs the command (bounded by the watchdog),
# checks its exit status.
expect_exit() {
    local want=$1
    shift
    timeout -k 5 "$WATCHDOG" "$@" >"$tmp/out" 2>"$tmp/err"
    local got=$?
    [ "$got" -eq 124 ] && fail "$* did not end within ${WATCHDOG}s"
    [ "$got" -eq "$want" ] || fail "$* exited $got, expected $want; stderr: $(cat "$tmp/err")"
}

# The service, on a port of its choosing.
mkfifo "$tmp/watch1" "$tmp/watch2"
start_hspaced "$HSPACED"

# put, get, rm with exit codes.
expect_exit 0 "$HSPACE" --url "$url" put greeting "hello world"
expect_exit 0 "$HSPACE" --url "$url" get greeting
[ "$(cat "$tmp/out")" = "hello world" ] || fail "get printed '$(cat "$tmp/out")'"
expect_exit 1 "$HSPACE" --url "$url" get missing
[ -s "$tmp/out" ] && fail "get of a missing key printed something"
expect_exit 1 "$HSPACE" --url "$url" rm missing
expect_exit 0 "$HSPACE" --url="$url" rm greeting
expect_exit 1 "$HSPACE" --url "$url" get greeting

# Values from standard input and from a file, read back byte for byte;
# HSPACE_URL stands for --url.
printf 'line one\nline two\001\000end' >"$tmp/value"
HSPACE_URL=$url timeout -k 5 "$WATCHDOG" "$HSPACE" put f/stdin <"$tmp/value" || fail "put from stdin"
HSPACE_URL=$url timeout -k 5 "$WATCHDOG" "$HSPACE" put f/dash - <"$tmp/value" || fail "put from stdin (-)"
expect_exit 0 "$HSPACE" --url "$url" put f/file -f "$tmp/value"
for k in f/stdin f/dash f/file; do
    expect_exit 0 "$HSPACE" --url "$url" get --raw "$k"
    cmp -s "$tmp/out" "$tmp/value" || fail "get --raw $k differs from what was put"
done

# A pattern: one escaped KEY<TAB>VALUE line per key, in key order.
expect_exit 0 "$HSPACE" --url "$url" put f/a "x y"
expect_exit 0 "$HSPACE" --url "$url" get 'f/*'
printf 'f/a\tx y\nf/dash\tline one\\nline two\\x01\\x00end\nf/file\tline one\\nline two\\x01\\x00end\nf/stdin\tline one\\nline two\\x01\\x00end\n' >"$tmp/want"
cmp -s "$tmp/out" "$tmp/want" || fail "pattern get printed: $(cat "$tmp/out")"
expect_exit 1 "$HSPACE" --url "$url" get 'none/*'

# Usage errors, help, an unreachable service.
expect_exit 2 "$HSPACE"
expect_exit 2 "$HSPACE" --url "$url" frobnicate
expect_exit 2 "$HSPACE" --url "$url" get
expect_exit 2 "$HSPACE" --bogus get k
expect_exit 0 "$HSPACE" --help
for word in put get rm watch --url "exit status"; do
    grep -qi -- "$word" "$tmp/out" || fail "--help does not mention $word"
done
expect_exit 3 "$HSPACE" --url tcp://127.0.0.1:1 get k
grep -q "connection refused" "$tmp/err" || fail "no error text for an unreachable service: $(cat "$tmp/err")"
expect_exit 3 "$HSPACE" --url http://127.0.0.1:1 get k

# watch: the image, then changes made by other processes, until SIGINT.
expect_exit 0 "$HSPACE" --url "$url" put w/1 first
"$HSPACE" --url "$url" watch 'w/*' >"$tmp/watch1" &
w1=$!
pids+=("$w1")
exec {w1_fd}<"$tmp/watch1"
expect_line "$w1_fd" "image w/1 = first"
expect_exit 0 "$HSPACE" --url "$url" put w/2 second
expect_line "$w1_fd" "stored w/2 = second"
expect_exit 0 "$HSPACE" --url "$url" rm w/1
expect_line "$w1_fd" "removed w/1"
kill -INT "$w1"
wait_exit "$w1_fd" "$w1" 0

# A watch whose service goes away fails with 3; hspaced stops with 0 on
# SIGTERM.
"$HSPACE" --url "$url" watch nothing >"$tmp/watch2" 2>"$tmp/watch2.err" &
w2=$!
pids+=("$w2")
exec {w2_fd}<"$tmp/watch2"
expect_line "$w2_fd" "image (none)"
kill -TERM "$svc"
wait_exit "$svc_fd" "$svc" 0
wait_exit "$w2_fd" "$w2" 3
grep -q "closed the connection" "$tmp/watch2.err" || fail "watch did not say why it ended: $(cat "$tmp/watch2.err")"

echo "cli_test: all passed"
