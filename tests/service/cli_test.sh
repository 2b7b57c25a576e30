#!/bin/bash
# cli_test.sh HSPACED HSPACE COMPLETION MANDIR - the hspace command-line
# client end to end against real hspaced processes on free loopback ports;
# its bash completion script; the manual pages in MANDIR (when built).
#
# Output of the long-running processes is read through fifos with bounded
# reads (read -t); every command runs under timeout (hspace's own --timeout
# is off where a loaded machine could exceed it). Nothing sleeps.
set -u -f
HSPACED=$1
HSPACE=$2
COMPLETION=$3
MANDIR=$4
. "$(dirname "$0")/lib.sh"

# hs CODE ARGS...: hspace against the service of $url.
hs() {
    local want=$1
    shift
    expect_exit "$want" "$HSPACE" --timeout 0 --url "$url" "$@"
}
# snapshot FILE: every object of the service, escaped, into FILE.
snapshot() {
    timeout -k 5 "$WATCHDOG" "$HSPACE" --timeout 0 --url "$url" get '*' >"$1" 2>/dev/null </dev/null
}

start_hspaced "$HSPACED"

# put, get, rm with exit codes.
hs 0 put greeting "hello world"
hs 0 get greeting
[ "$(cat "$tmp/out")" = "hello world" ] || fail "get printed '$(cat "$tmp/out")'"
hs 1 get missing
[ -s "$tmp/out" ] && fail "get of a missing key printed something"
expect_err "nothing stored under missing"
hs 1 rm missing
hs 0 rm greeting
hs 1 get greeting

# Values from standard input and from a file, read back byte for byte;
# HSPACE_URL stands for --url. Every printed value is escaped, a single
# key's as a pattern's; only --raw is not.
printf 'line one\nline two\001\000end' >"$tmp/value"
HSPACE_URL=$url timeout -k 5 "$WATCHDOG" "$HSPACE" --timeout 0 put f/stdin <"$tmp/value" || fail "put from stdin"
HSPACE_URL=$url timeout -k 5 "$WATCHDOG" "$HSPACE" --timeout 0 put f/dash - <"$tmp/value" || fail "put from stdin (-)"
hs 0 put f/file -f "$tmp/value"
for k in f/stdin f/dash f/file; do
    hs 0 get --raw "$k"
    cmp -s "$tmp/out" "$tmp/value" || fail "get --raw $k differs from what was put"
    hs 0 get "$k"
    [ "$(cat "$tmp/out")" = 'line one\nline two\x01\x00end' ] || fail "get $k printed: $(cat "$tmp/out")"
done
hs 0 put f/a "x y"
hs 0 get 'f/*'
printf 'f/a\tx y\nf/dash\tline one\\nline two\\x01\\x00end\nf/file\tline one\\nline two\\x01\\x00end\nf/stdin\tline one\\nline two\\x01\\x00end\n' >"$tmp/want"
cmp -s "$tmp/out" "$tmp/want" || fail "pattern get printed: $(cat "$tmp/out")"
hs 1 get 'none/*'
expect_err "no key starts with none/"

# Help and version at every level print on stdout, exit 0 and change
# nothing in the store; usage errors exit 2 and change nothing either.
snapshot "$tmp/before"
while IFS='|' read -r want args; do
    eval "set -- $args"
    hs "$want" "$@"
    [ "$want" -eq 2 ] || [ -s "$tmp/out" ] || fail "'$args' printed nothing"
    [ "$want" -ne 2 ] || [ ! -s "$tmp/out" ] || fail "'$args' wrote on stdout: $(cat "$tmp/out")"
done <<'EOF'
0|--help
0|-h
0|--version
0|help
0|help put
0|put --help
0|put f/a --help
0|put f/a -h
0|put --help f/a x
0|put f/a x --help
0|get --help
0|get f/a --help
0|get --raw --help
0|rm --help
0|rm f/a --help
0|rm -h f/a
0|watch --help
0|watch 'f/*' --help
0|--url tcp://127.0.0.1:1 get --help
2|
2|frobnicate
2|get
2|get a b
2|rm
2|rm a b
2|watch
2|--bogus get f/a
2|get --bogus f/a
2|put f/a -f
2|put f/a x -f /dev/null
2|put f/a x y
2|--timeout -1 get f/a
2|--timeout soon get f/a
2|--timeout 0x10 get f/a
2|--timeout 1e3 get f/a
2|--timeout .5 get f/a
2|--timeout 5. get f/a
2|help nosuch
0|ls --help
0|ping --help
0|help ls
0|help watch
2|ls a b
2|ping -c 0
2|watch -o xml k
EOF
grep -qi "exit status" <(timeout 5 "$HSPACE" --help) || fail "--help does not document the exit status"
grep -q "^Usage: hspace .*put KEY" <(timeout 5 "$HSPACE" help put) || fail "help put is not put's help"
# --help documents every command's options, and help alone lists every
# command with its usage; so does a usage error without a command.
timeout 5 "$HSPACE" --help >"$tmp/help"
for word in --file --output --raw --no-image --no-retry --count HSPACE_URL "Exit status"; do
    grep -q -- "$word" "$tmp/help" || fail "--help lacks $word"
done
for args in "help" "--bogus" "" "frob"; do
    timeout 5 "$HSPACE" $args >"$tmp/out" 2>"$tmp/err"
    for c in "put KEY" "get \[-o FORMAT\] KEY" "ls \[-o FORMAT\] \[PATTERN\]" "rm KEY" "watch \[OPTIONS\] KEY" \
        "ping \[-c COUNT\]" "help \[COMMAND\]"; do
        grep -q "^  $c" "$tmp/out" "$tmp/err" || fail "'hspace $args' does not list '$c'"
    done
done
# Every usage error names the command it concerns and the help to read.
while IFS='|' read -r args text; do
    eval "set -- $args"
    hs 2 "$@"
    expect_err "$text"
    case $text in
    *"is not a command") grep -q "^Commands:" "$tmp/err" || fail "'$args' does not list the commands" ;;
    "hspace "[a-z]*:*)
        word=${text#hspace }
        expect_err "Run 'hspace ${word%%:*} --help' for its usage." ;;
    esac
done <<'EOF2'
|hspace: no command given
frob|hspace: 'frob' is not a command
get|hspace get: KEY is required
--bogus get k|hspace get: The following argument was not expected: --bogus
ls a b|hspace ls: The following argument was not expected: b
get -o xml k|hspace get: --output: xml not in {text,json,raw}
watch --no-such k|hspace watch: The following argument was not expected: --no-such
watch -o k|hspace watch: --output
ping -c 0|hspace ping: --count: '0' is not a count
ping -c x|hspace ping: --count: 'x' is not a count
ping extra|hspace ping: The following argument was not expected: extra
--timeout soon ls|hspace ls: --timeout: 'soon' is not a number
rm|hspace rm: KEY is required
help nosuch|hspace help: 'nosuch' is not a command
EOF2
snapshot "$tmp/after"
cmp -s "$tmp/before" "$tmp/after" || fail "help or a usage error changed the store: $(diff "$tmp/before" "$tmp/after")"

# -- ends the options: keys and values that look like options.
hs 0 put -- -f -x
hs 0 get -- -f
[ "$(cat "$tmp/out")" = "-x" ] || fail "get -- -f printed '$(cat "$tmp/out")'"
hs 1 rm -- --help
hs 0 rm -- -f

# Output formats of get and ls: text escapes, raw does not, json gives one
# object per line, values (and keys) that are no UTF-8 in base64. Every
# JSON line is parsed.
jnorm() {
    PYTHONIOENCODING=utf-8 python3 -c 'import json, sys
for line in sys.stdin.buffer: print(json.dumps(json.loads(line), sort_keys=True, separators=(",", ":"),
                                               ensure_ascii=False))'
}
printf 'caf\xc3\xa9' | timeout -k 5 "$WATCHDOG" "$HSPACE" --timeout 0 --url "$url" put o/utf8 || fail "put o/utf8"
printf 'a\xffb\x00' | timeout -k 5 "$WATCHDOG" "$HSPACE" --timeout 0 --url "$url" put o/bin || fail "put o/bin"
printf '\xed\xa0\x80' | timeout -k 5 "$WATCHDOG" "$HSPACE" --timeout 0 --url "$url" put o/surrogate || fail "put"
printf '\xc0\xaf' | timeout -k 5 "$WATCHDOG" "$HSPACE" --timeout 0 --url "$url" put o/overlong || fail "put"
hs 0 put $'o/k\xff' v
hs 0 put o/empty -f /dev/null
while IFS='|' read -r norm args want; do
    eval "set -- $args"
    hs 0 "$@"
    if [ "$norm" = json ]; then jnorm <"$tmp/out" >"$tmp/got" || fail "$args printed no JSON: $(cat "$tmp/out")"
    else cp "$tmp/out" "$tmp/got"; fi
    printf '%b' "$want" | cmp -s - "$tmp/got" || fail "$args printed: $(cat -A "$tmp/got")"
done <<'EOF2'
text|get o/utf8|caf\\xc3\\xa9\n
raw|get -o raw o/utf8|caf\xc3\xa9
raw|get --raw o/bin|a\xffb\x00
json|get -o json o/utf8|{"key":"o/utf8","value":"caf\xc3\xa9"}\n
json|get --output json o/bin|{"key":"o/bin","value":"Yf9iAA==","value_encoding":"base64"}\n
json|get -o json o/surrogate|{"key":"o/surrogate","value":"7aCA","value_encoding":"base64"}\n
json|get -o json o/overlong|{"key":"o/overlong","value":"wK8=","value_encoding":"base64"}\n
json|get -o json o/empty|{"key":"o/empty","value":""}\n
text|ls 'o/*'|o/bin\no/empty\no/k\\xff\no/overlong\no/surrogate\no/utf8\n
raw|ls -o raw 'o/e*'|o/empty\n
json|ls -o json 'o/k*'|{"key":"by9r/w==","key_encoding":"base64"}\n
json|ls -o json o/utf8|{"key":"o/utf8"}\n
json|get -o json 'o/u*'|{"key":"o/utf8","value":"caf\xc3\xa9"}\n
raw|get -o raw 'o/e*'|o/empty\t\n
text|get 'o/e*'|o/empty\t\n
EOF2
hs 0 ls
grep -qx "o/utf8" "$tmp/out" && grep -qx "f/a" "$tmp/out" || fail "ls without a pattern: $(cat "$tmp/out")"
hs 1 ls 'none/*'
expect_err "hspace: ls: no key starts with none/"
hs 1 ls none
expect_err "hspace: ls: nothing stored under none"

# ping: the service's name from the handshake and one line per request.
hs 0 ping -c 3
grep -q "^connected to hspaced at $url in [0-9.]* ms$" "$tmp/out" || fail "ping printed: $(cat "$tmp/out")"
[ "$(grep -c '^reply [123]: [0-9.]* ms$' "$tmp/out")" -eq 3 ] || fail "ping printed: $(cat "$tmp/out")"
grep -q "^3 replies: min " "$tmp/out" || fail "ping printed no summary"
expect_exit 3 "$HSPACE" --url tcp://127.0.0.1:1 ping
expect_err "hspace: cannot connect to tcp://127.0.0.1:1: connection refused (1001)"

# Messages that name the limit or the cause.
key70k=$(printf 'k%.0s' $(seq 70000))
hs 2 get "$key70k"
expect_err "key is 70000 bytes; at most 65535"
hs 1 rm 'f/*'
expect_err "never a pattern"

# URLs are checked where they are typed, before anything is sent.
while IFS='|' read -r u text; do
    expect_exit 2 "$HSPACE" --url "$u" get k
    expect_err "$text"
done <<'EOF'
tcp://127.0.0.1:99999|out of range
tcp://127.0.0.1:0|out of range
tcp://127.0.0.1:abc|not a number
tcp://127.0.0.1:-1|not a number
tcp://127.0.0.1:80/x|not a number
tcp://127.0.0.1:|port is empty
tcp://:0|host is empty
tcp://:7521|host is empty
tcp://127.0.0.1|no port
tcp://[::1]:7521|IPv6
tcp://::1:7521|IPv6
http://127.0.0.1:1|only tcp
127.0.0.1:1|no scheme
|URL is empty
EOF
HSPACE_URL=tcp://127.0.0.1:99999 expect_exit 2 "$HSPACE" get k
expect_err "HSPACE_URL: the port 99999 is out of range"
while IFS='|' read -r args text; do
    eval "set -- $args"
    expect_exit 2 "$HSPACED" "$@"
    expect_err "$text"
done <<'EOF'
--listen ::1|IPv6
--listen '[::1]'|IPv6
--listen ''|host is empty
--port 65536|out of range
--port x|not a decimal number
--port 010x|not a decimal number
--port 0x10|not a decimal number
--max-queue 10|out of range
--max-memory 1000|out of range
--max-queue 4194304 --max-memory 2097152|under --max-queue
--max-connections 0|out of range
--max-subscriptions x|not a decimal number
--handshake-timeout .5|not a number of seconds
--handshake-timeout 5s|not a number of seconds
--handshake-timeout 86401|out of range
EOF
expect_exit 3 "$HSPACE" --url tcp://127.0.0.1:1 get k
expect_err "cannot connect to tcp://127.0.0.1:1: connection refused"
# On every address, hspaced prints a URL a client on the host can use.
mkfifo "$tmp/any"
"$HSPACED" --listen 0.0.0.0 --insecure --port 0 --quiet >"$tmp/any" &
any=$!
pids+=("$any")
exec {any_fd}<"$tmp/any"
read_line "$any_fd"
case $line in
"hspaced listening on tcp://127.0.0.1:"*" (all IPv4 addresses of this host"*) ;;
*) fail "hspaced --listen 0.0.0.0 printed: $line" ;;
esac
any_url=${line#hspaced listening on }
any_url=${any_url%% *}
expect_exit 0 "$HSPACE" --url "$any_url" ping
kill -TERM "$any"
wait_exit "$any_fd" "$any" 0
# A key prefix the memory store would ignore is refused.
for args in "--store-prefix x/" "--store memory --store-prefix x/"; do
    expect_exit 2 "$HSPACED" $args
    expect_err "--store-prefix applies to --store etcd://... only"
done

# Output errors: every write to stdout is checked.
head -c 5000 /dev/zero | tr '\0' v >"$tmp/big"
hs 0 put big -f "$tmp/big"
for args in "get big" "get --raw big" "get f/a" "get --raw f/a" "get *" "--help" "put --help" "help" "ls" \
    "ls -o json" "get -o json big" "ping" "watch big" "watch -o json f/*"; do
    timeout -k 5 "$WATCHDOG" "$HSPACE" --timeout 0 --url "$url" $args >/dev/full 2>"$tmp/err"
    rc=$?
    [ "$rc" -eq 3 ] || fail "$args > /dev/full exited $rc"
    expect_err "cannot write standard output"
done

# watch: the image, then changes made by other processes, until SIGINT.
mkfifo "$tmp/watch1" "$tmp/watch2" "$tmp/watch3" "$tmp/listener"
hs 0 put w/1 first
"$HSPACE" --timeout 0 --url "$url" watch 'w/*' >"$tmp/watch1" &
w1=$!
pids+=("$w1")
exec {w1_fd}<"$tmp/watch1"
expect_line "$w1_fd" "image w/1 = first"
hs 0 put w/2 $'sec\nond'
expect_line "$w1_fd" 'stored w/2 = sec\nond'
hs 0 rm w/1
expect_line "$w1_fd" "removed w/1"
kill -INT "$w1"
wait_exit "$w1_fd" "$w1" 0

# watch -o json: JSON lines, each parsed, the image's with index, count
# and resync flag. (--no-image and the breaks: test_cli_watch.)
mkfifo "$tmp/watch4"
hs 0 put w/3 $'\xff'
"$HSPACE" --timeout 0 --url "$url" watch -o json 'w/*' >"$tmp/watch4" &
w4=$!
pids+=("$w4")
exec {w4_fd}<"$tmp/watch4"
for want in '{"count":2,"event":"image","index":1,"key":"w/2","resync":false,"value":"sec\nond"}' \
    '{"count":2,"event":"image","index":2,"key":"w/3","resync":false,"value":"/w==","value_encoding":"base64"}' \
    rm '{"event":"removed","key":"w/3"}' put '{"event":"stored","key":"w/4","value":"four"}'; do
    case $want in
    rm) hs 0 rm w/3 ;;
    put) hs 0 put w/4 four ;;
    *)
        read_line "$w4_fd"
        [ "$(printf '%s\n' "$line" | jnorm)" = "$want" ] || fail "watch -o json printed $line, expected $want"
        ;;
    esac
done
kill -TERM "$w4"
wait_exit "$w4_fd" "$w4" 0

# A service that accepts and never answers: get times out (3) with a
# message; a watch still connecting ends with 0 on SIGTERM.
perl -MIO::Socket::INET -e '$| = 1;
    my $s = IO::Socket::INET->new(LocalAddr => "127.0.0.1", LocalPort => 0, Listen => 8) or die "listen: $!";
    print $s->sockport, "\n";
    my @held;
    while (my $c = $s->accept) { push @held, $c; print "accepted\n"; }' >"$tmp/listener" &
pids+=($!)
exec {listener_fd}<"$tmp/listener"
read_line "$listener_fd"
silent=tcp://127.0.0.1:$line
expect_exit 3 "$HSPACE" --url "$silent" --timeout 1 get k
expect_err "timed out after 1 s connecting to $silent"
expect_line "$listener_fd" accepted
# The library's own bound of an open (5 s) does not cut a longer --timeout
# short: the connect waits for the user's bound alone.
expect_exit 3 "$HSPACE" --url "$silent" --timeout 5.5 ping
expect_err "timed out after 5.5 s connecting to $silent"
expect_line "$listener_fd" accepted
"$HSPACE" --url "$silent" --timeout 0 watch k >"$tmp/watch3" &
w3=$!
pids+=("$w3")
exec {w3_fd}<"$tmp/watch3"
expect_line "$listener_fd" accepted
kill -TERM "$w3"
wait_exit "$w3_fd" "$w3" 0

# A value the service could never send back is refused, with a log line;
# answers larger than the queue bound never drop their reader, nor anyone
# else: a pattern get over the bound and a watcher both go on.
start_hspaced "$HSPACED" --max-queue 4096
small_log=$tmp/hspaced.$nservices.log
hs 0 put b/0 -f /dev/null
"$HSPACE" --timeout 0 --url "$url" watch --no-retry 'b/*' >"$tmp/watch2" 2>"$tmp/watch2.err" &
w2=$!
pids+=("$w2")
exec {w2_fd}<"$tmp/watch2"
expect_line "$w2_fd" "image b/0 = "
hs 3 put b/big -f "$tmp/big"
expect_err "value is 5000 bytes; the service refused it"
grep -q 'level=warn event=put_refused conn=[0-9]* key=b/big value_bytes=5000 ' "$small_log" || fail "no log line for the refusal"
head -c 3000 "$tmp/big" >"$tmp/value3k"
for i in 1 2 3; do
    hs 0 put "b/$i" -f "$tmp/value3k"
    read_line "$w2_fd"
done
hs 0 get 'b/*'
[ "$(wc -l <"$tmp/out")" -eq 4 ] || fail "pattern get over the queue bound printed $(wc -l <"$tmp/out") lines"
hs 0 put b/4 four
expect_line "$w2_fd" "stored b/4 = four"

# A watch told not to retry whose service goes away fails with 3 and says
# why; hspaced stops with 0 on SIGTERM.
kill -TERM "$svc"
wait_exit "$svc_fd" "$svc" 0
wait_exit "$w2_fd" "$w2" 3
grep -q "watch b/\*: the service closed the connection" "$tmp/watch2.err" || fail "watch did not say why it ended: $(cat "$tmp/watch2.err")"

# The completion script completes commands and options.
complete_line() {
    timeout 10 bash -c 'source /usr/share/bash-completion/bash_completion 2>/dev/null; source "$1"; shift
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
        _hspace; echo "${COMPREPLY[*]}"' _ "$COMPLETION" "$@"
}
[ "$(complete_line hspace g)" = get ] || fail "completion of 'hspace g': $(complete_line hspace g)"
[ "$(complete_line hspace get --r)" = --raw ] || fail "completion of 'hspace get --r'"
[ "$(complete_line hspace --ti)" = --timeout ] || fail "completion of 'hspace --ti'"
while IFS='|' read -r words want; do
    eval "set -- $words"
    got=$(complete_line hspace "$@")
    [ "$got" = "$want" ] || fail "completion of 'hspace $words': '$got', expected '$want'"
done <<'EOF2'
l|ls
p|put ping
watch --no-|--no-image --no-retry
watch -o ''|text json raw
get --output j|json
ls -|-o --output --help
ping --c|--count
help w|watch
--url x l|ls
EOF2
timeout 10 bash -c 'source "$1" && complete -p hspace' _ "$COMPLETION" >/dev/null || fail "completion does not load"

# The manual pages render.
if [ -d "$MANDIR" ]; then
    for page in hspace.1 hspaced.8; do
        LC_ALL=C MANPAGER=cat MANWIDTH=80 timeout 20 man -l "$MANDIR/$page" >"$tmp/man" 2>&1 || fail "man -l $page failed"
        grep -q -- "--timeout\|--max-queue" "$tmp/man" || fail "$page lacks the options: $(head -20 "$tmp/man")"
        for section in EXAMPLES FILES "SEE ALSO" ENVIRONMENT; do
            grep -q "^$section" "$tmp/man" || fail "$page has no $section section"
        done
    done
    LC_ALL=C MANPAGER=cat MANWIDTH=80 timeout 20 man -l "$MANDIR/hspace.1" >"$tmp/man" 2>&1
    for word in --no-retry --no-image --count --output HSPACE_URL "hspace watch" "Exit status"; do
        grep -q -- "$word" "$tmp/man" || fail "hspace(1) lacks $word"
    done
    LC_ALL=C MANPAGER=cat MANWIDTH=80 timeout 20 man -l "$MANDIR/hspaced.8" >"$tmp/man" 2>&1
    for word in --store-prefix --listen hspaced.service "systemctl"; do
        grep -q -- "$word" "$tmp/man" || fail "hspaced(8) lacks $word"
    done
fi

echo "cli_test: all passed"
