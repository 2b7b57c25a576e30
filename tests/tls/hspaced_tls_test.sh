#!/bin/bash
# hspaced_tls_test.sh HSPACED HSPACE COMPLETION MANDIR - hspaced's and hspace's TLS
# options end to end: the usage errors and the files they cannot use, the
# URL hspaced prints, what it logs when a plain-TCP client, a client without
# a certificate and a client with one connect, and hspace's every failure
# with its cause; their completion and manual pages (when built).
# Certificates are made here with the openssl command.
# Every command runs under timeout; output is read through fifos with
# bounded reads. Nothing sleeps.
set -u -f
HSPACED=$1
HSPACE=$2
COMPLETION=$3
MANDIR=$4
. "$(dirname "$0")/../service/lib.sh"


# A CA, a server certificate for 127.0.0.1 and a client certificate (CN
# alice, O readers), another CA, P-256 keys.
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
ossl req -x509 "${ec[@]}" -keyout "$c/other.key" -out "$c/other.pem" -subj "/CN=other CA" -days 2
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
expect_err "event=start_failed reason=\"cannot use the TLS certificate $c/garbage.pem: "
expect_exit 1 "$HSPACED" --port 0 --tls-cert "$c/server.pem" --tls-key "$c/alice.key"
expect_err "event=start_failed reason="
expect_exit 1 "$HSPACED" --port 0 --tls-cert "$c/server.pem" --tls-key "$c/server.key" --tls-client-ca "$c/garbage.pem"
expect_err "event=start_failed reason=\"cannot use the TLS client CA $c/garbage.pem: "

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
wait_log 'reason="TLS handshake failed: '
# A TLS client without a certificate is refused; one with alice's is named
# in the log by it.
s_client
wait_log 'reason="TLS handshake failed: peer did not return a certificate'
s_client -cert "$c/alice.pem" -key "$c/alice.key"
grep -q "Verify return code: 0 (ok)" "$tmp/out" || fail "openssl s_client: $(cat "$tmp/out")"
wait_log "cn=alice o=readers"

# hspace over TLS: the files from the options or from the environment, and
# with a certificate no name claimed, so the certificate names the client.
tls=(--url "$url" --cacert "$c/ca.pem")
alice=(--cert "$c/alice.pem" --key "$c/alice.key")
expect_exit 0 "$HSPACE" "${tls[@]}" "${alice[@]}" put k v
wait_log "cn=alice o=readers"
wait_log "client=alice group=readers certified=true"
expect_exit 0 env HSPACE_URL="$url" HSPACE_CACERT="$c/ca.pem" HSPACE_CERT="$c/alice.pem" HSPACE_KEY="$c/alice.key" \
    "$HSPACE" get k
[ "$(cat "$tmp/out")" = v ] || fail "get over TLS printed '$(cat "$tmp/out")'"
expect_exit 0 "$HSPACE" "${tls[@]}" "${alice[@]}" ping
grep -q "^connected to hspaced at $url in " "$tmp/out" || fail "ping over TLS: $(cat "$tmp/out")"

# Each failure exits 3 (2 for usage) with its cause, through every path
# that opens (a request, ping, watch), before anything is sent.
while IFS='|' read -r code text args; do
    eval "set -- $args"
    expect_exit "$code" "$HSPACE" "$@"
    expect_err "$text"
done <<EOF
3|(1013): the service asked for a client certificate and none is configured|${tls[*]} get k
3|(1013): the service asked for a client certificate|${tls[*]} ping
3|(1013): the service asked for a client certificate|${tls[*]} watch --no-retry k
3|: certificate verify failed: self-signed certificate in certificate chain (1012)|--url $url --cacert $c/other.pem ${alice[*]} get k
3|hspace: cannot use the TLS files: |--url $url --cacert $c/missing.pem get k
3|(1014): cannot read the CA file $c/missing.pem|--url $url --cacert $c/missing.pem watch k
3|(1014): |${tls[*]} --cert $c/alice.pem --key $c/server.key rm k
3|(1014): |${tls[*]} --cert $c/garbage.pem --key $c/alice.key ping
2|hspace: --cert requires --key (or HSPACE_KEY)|${tls[*]} --cert $c/alice.pem get k
2|hspace: --key requires --cert (or HSPACE_CERT)|${tls[*]} --key $c/alice.key get k
2|hspace: --cacert applies to tls:// URLs only, not tcp://127.0.0.1:$port|--url tcp://127.0.0.1:$port --cacert $c/ca.pem get k
2|hspace: --key applies to tls:// URLs only|--url tcp://127.0.0.1:$port --key $c/alice.key get k
2|only tcp and tls are supported|--url http://127.0.0.1:$port get k
EOF
# The variables: a certificate without its key is a usage error; with a
# tcp:// URL they are not used at all.
expect_exit 2 env HSPACE_CERT="$c/alice.pem" "$HSPACE" "${tls[@]}" get k
expect_err "hspace: HSPACE_CERT requires --key (or HSPACE_KEY)"
expect_exit 3 env HSPACE_CACERT="$c/missing.pem" HSPACE_CERT="$c/alice.pem" "$HSPACE" --timeout 0 \
    --url "tcp://127.0.0.1:$port" get k
expect_err "cannot connect to tcp://127.0.0.1:$port: "

kill -TERM "$svc"
wait_exit "$svc_fd" "$svc" 0

# Completion of the TLS options and of file names after them.
complete_line() {
    timeout 10 bash -c 'source /usr/share/bash-completion/bash_completion 2>/dev/null; source "$1"; shift
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
        _hspace; echo "${COMPREPLY[*]}"' _ "$COMPLETION" "$@"
}
[ "$(complete_line hspace --cac)" = --cacert ] || fail "completion of 'hspace --cac': $(complete_line hspace --cac)"
[ "$(complete_line hspace --cacert "$c/ca.p")" = "$c/ca.pem" ] || fail "completion of a file after --cacert"
[ "$(complete_line hspace --key "$c/alice.key" l)" = ls ] || fail "completion after --key FILE"

# The manual pages, made from the programs' help, name every TLS option.
if [ -d "$MANDIR" ]; then
    LC_ALL=C MANPAGER=cat MANWIDTH=80 timeout 20 man -l "$MANDIR/hspace.1" >"$tmp/man" 2>&1 || fail "man hspace.1"
    for word in --cacert --cert --key HSPACE_CACERT HSPACE_CERT HSPACE_KEY tls://; do
        grep -q -- "$word" "$tmp/man" || fail "hspace(1) lacks $word"
    done
    LC_ALL=C MANPAGER=cat MANWIDTH=80 timeout 20 man -l "$MANDIR/hspaced.8" >"$tmp/man" 2>&1 || fail "man hspaced.8"
    for word in --tls-cert --tls-key --tls-client-ca; do
        grep -q -- "$word" "$tmp/man" || fail "hspaced(8) lacks $word"
    done
fi
echo "hspaced and hspace TLS: ok"
