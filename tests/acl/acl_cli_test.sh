#!/bin/bash
# acl_cli_test.sh HSPACED HSPACE - hspaced's access rules as an operator
# meets them: a bad rule file at start (exit 2, its line), an address other
# than loopback refused unless --insecure, refusals answered and logged (who,
# what, the key escaped; never a value), SIGHUP reloading the file and a
# bad one kept out. hspace (group "cli") is the client.
#
# hspaced's standard error is read line by line through a fifo with bounded
# reads; every command runs under timeout. Nothing sleeps.
set -u -f
HSPACED=$1
HSPACE=$2
. "$(dirname "$0")/../service/lib.sh"

# hs CODE ARGS...: hspace against the service of $url.
hs() {
    local want=$1
    shift
    expect_exit "$want" "$HSPACE" --timeout 0 --url "$url" "$@"
}
# expect_log TEXT: hspaced logs a line containing TEXT
# before long; the lines read are kept in $tmp/log.
expect_log() {
    while read_line "$log_fd"; do
        printf '%s\n' "$line" >>"$tmp/log"
        [[ $line == *"$1"* ]] && return 0
    done
}

rules=$tmp/rules

# A bad file, or none, at start: exit 2 with the file and line.
printf 'cli rw a/*\n\n# x\ncli x b/*\n' >"$rules"
expect_exit 2 "$HSPACED" --port 0 --acl "$rules"
expect_err "hspaced: $rules:4: rights 'x' are not r, w or rw"
expect_exit 2 "$HSPACED" --port 0 --acl "$tmp/none"
expect_err "hspaced: cannot read $tmp/none: No such file or directory"

# Only loopback is served open: elsewhere only with client certificates
# and rules, or --insecure. Once the check passes, 192.0.2.1 (an address no
# interface has) cannot be listened on. A self-signed certificate made here
# is the service's and the clients' CA at once.
printf 'cli rw *\n' >"$rules"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj /CN=hspaced \
    -keyout "$tmp/key.pem" -out "$tmp/cert.pem" 2>/dev/null || fail "openssl could not make a certificate"
tls="--tls-cert $tmp/cert.pem --tls-key $tmp/key.pem"
while IFS='|' read -r want args; do
    eval "set -- $args"
    expect_exit "$want" "$HSPACED" --port 0 "$@"
    if [ "$want" -eq 2 ]; then
        expect_err "hspaced: refusing to listen on $2, which is not a loopback address"
    else
        expect_err 'event=start_failed reason="cannot listen on 192.0.2.1:0'
    fi
done <<EOF
2|--listen 0.0.0.0
2|--listen 192.0.2.1 --acl $rules
2|--listen 192.0.2.1 --acl $rules $tls
2|--listen 192.0.2.1 $tls --tls-client-ca $tmp/cert.pem
1|--listen 192.0.2.1 --acl $rules $tls --tls-client-ca $tmp/cert.pem
1|--listen 192.0.2.1 --insecure
EOF

# A service on the rules, its log through a fifo.
printf 'cli rw a/*   # the CLI owns a/\ncli r b/*\n' >"$rules"
mkfifo "$tmp/stdout" "$tmp/stderr"
"$HSPACED" --port 0 --acl "$rules" >"$tmp/stdout" 2>"$tmp/stderr" &
svc=$!
pids+=("$svc")
exec {svc_fd}<"$tmp/stdout" {log_fd}<"$tmp/stderr"
read_line "$svc_fd"
url=${line#hspaced listening on }

hs 0 put a/1 secret-one
hs 3 put b/1 secret-two
expect_err "hspace: put b/1: permission denied (1104)"
expect_log 'level=warn event=denied conn=2 op=put key=b/1 client=hspace group=cli certified=false'
hs 3 get 'b*'
expect_log 'event=denied conn=3 op=get key=b* client=hspace group=cli'
hs 3 put "$(printf 'a\tb\001"#c')" secret-three
expect_log 'event=denied conn=4 op=put key="a\x09b\x01\"#c" client=hspace'
hs 1 get 'b/*'
hs 0 get a/1

# SIGHUP: the file again. Then a bad one: the rules in force stay.
printf 'cli rw b/*\n' >"$rules"
kill -HUP "$svc"
expect_log "access rules reloaded from $rules: 1 rules, 0 subscriptions ended"
hs 0 put b/1 secret-four
hs 3 get a/1
printf 'cli rw b/*\ncli rw\n' >"$rules"
kill -HUP "$svc"
expect_log "access rules not reloaded, the previous ones stay: $rules:2: expected GROUP RIGHTS PATTERN, found 2 fields"
hs 0 get b/1
hs 3 put a/2 secret-five
rm "$rules"
kill -HUP "$svc"
expect_log "access rules not reloaded, the previous ones stay: cannot read $rules: No such file or directory"
hs 0 put b/2 secret-six

# It stops as before; no value reached the log.
kill -TERM "$svc"
expect_log "event=stopping signal=SIGTERM"
while IFS= read -r -t "$WATCHDOG" -u "$log_fd" line; do printf '%s\n' "$line" >>"$tmp/log"; done
wait_exit "$svc_fd" "$svc" 0
grep -q secret "$tmp/log" && fail "a value in the log: $(grep secret "$tmp/log")"
echo "acl_cli_test: ok"
