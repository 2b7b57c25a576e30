#!/bin/bash
# hspaced_tls_test.sh HSPACED HSPACE - hspaced's TLS options end to end: the
# usage errors and the files it cannot use, the URL it prints, and what it
# logs when a plain-TCP client, a client without a certificate and a client
# with one connect. Certificates are made here with the openssl command.
# Every command runs under timeout; output is read through fifos with
# bounded reads. Nothing sleeps.
set -u -f
HSPACED=$1
HSPACE=$2
. "$(dirname "$0")/../service/lib.sh"

# expect_exit CODE COMMAND...: the command's exit status; output in $tmp/out, $tmp/err.
expect_exit() {
    local want=$1
    shift
    timeout -k 5 "$WATCHDOG" "$@" >"$tmp/out" 2>"$tmp/err" </dev/null
    local got=$?
    [ "$got" -eq 124 ] && fail "$* did not end within ${WATCHDOG}s"
    [ "$got" -eq "$want" ] || fail "$* exited $got, expected $want; stderr: $(cat "$tmp/err")"
}
expect_err() { grep -qF -- "$1" "$tmp/err" || fail "stderr lacks '$1': $(cat "$tmp/err")"; }

# A CA, a server certificate for 127.0.0.1 and a client certificate (CN
# alice, O readers), P-256 keys.
c=$tmp/certs
mkdir "$c"
ossl() { openssl "$@" 2>>"$c/openssl.log" || fail "openssl $*: $(cat "$c/openssl.log")"; }
ec=(-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes)
ossl req -x509 "${ec[@]}" -keyout "$c/ca.key" -out "$c/ca.pem" -subj "/CN=test CA" -days 2
ossl req "${ec[@]}" -keyout "$c/server.key" -out "$c/server.csr" -subj "/CN=hspaced"
printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\n' >"$c/server.ext"
ossl x509 -req -in "$c/server.csr" -CA "$c/ca.pem" -CAkey "$c/ca.key" -CAcreateserial -days 2 \
    -extfile "$c/server.ext" -out "$c/server.pem"
ossl req "${ec[@]}" -keyout "$c/alice.key" -out "$c/alice.csr" -subj "/CN=alice/O=readers"
ossl x509 -req -in "$c/alice.csr" -CA "$c/ca.pem" -CAkey "$c/ca.key" -CAcreateserial -days 2 -out "$c/alice.pem"
echo "not a certificate" >"$c/garbage.pem"

# Usage errors (2) and files that cannot be used (1), each named.
expect_exit 2 "$HSPACED" --port 0 --tls-cert "$c/server.pem"
expect_err "--tls-cert requires --tls-key"
expect_exit 2 "$HSPACED" --port 0 --tls-key "$c/server.key"
expect_err "--tls-key requires --tls-cert"
expect_exit 2 "$HSPACED" --port 0 --tls-client-ca "$c/ca.pem"
expect_err "--tls-client-ca requires --tls-cert"
expect_exit 2 "$HSPACED" --port 0 --tls-cert "$c/missing.pem" --tls-key "$c/server.key"
expect_err "missing.pem"
expect_exit 1 "$HSPACED" --port 0 --tls-cert "$c/garbage.pem" --tls-key "$c/server.key"
expect_err "hspaced: cannot use the TLS certificate $c/garbage.pem: "
expect_exit 1 "$HSPACED" --port 0 --tls-cert "$c/server.pem" --tls-key "$c/alice.key"
expect_err "hspaced: "
expect_exit 1 "$HSPACED" --port 0 --tls-cert "$c/server.pem" --tls-key "$c/server.key" --tls-client-ca "$c/garbage.pem"
expect_err "hspaced: cannot use the TLS client CA $c/garbage.pem: "

# TLS with client certificates: the URL printed is tls://; the log is read
# line by line as the service writes it.
mkfifo "$tmp/service" "$tmp/log"
"$HSPACED" --port 0 --tls-cert "$c/server.pem" --tls-key "$c/server.key" --tls-client-ca "$c/ca.pem" \
    >"$tmp/service" 2>"$tmp/log" &
svc=$!
pids+=("$svc")
exec {svc_fd}<"$tmp/service" {log_fd}<"$tmp/log"
read_line "$svc_fd"
case $line in
"hspaced listening on tls://127.0.0.1:"*) url=${line#hspaced listening on } ;;
*) fail "unexpected first line from hspaced: $line" ;;
esac
port=${url##*:}

# wait_log TEXT: hspaced logs a line holding TEXT (bounded by the watchdog).
wait_log() {
    while read_line "$log_fd"; do
        case $line in *"$1"*) return 0 ;; esac
    done
}
# s_client ARGS...: openssl's own TLS client, connected and gone.
s_client() {
    timeout -k 5 "$WATCHDOG" openssl s_client -connect "127.0.0.1:$port" -CAfile "$c/ca.pem" -verify_return_error \
        "$@" </dev/null >"$tmp/out" 2>&1
}

# A plain-TCP client fails at once, and the service says why.
expect_exit 3 "$HSPACE" --timeout 0 --url "tcp://127.0.0.1:$port" get k
wait_log "closed: TLS handshake failed: "
# A TLS client without a certificate is refused; one with alice's is named
# in the log by it.
s_client
wait_log "closed: TLS handshake failed: peer did not return a certificate"
s_client -cert "$c/alice.pem" -key "$c/alice.key"
grep -q "Verify return code: 0 (ok)" "$tmp/out" || fail "openssl s_client: $(cat "$tmp/out")"
wait_log "client certificate CN \"alice\" O readers"

kill -TERM "$svc"
wait_exit "$svc_fd" "$svc" 0
echo "hspaced TLS: ok"
