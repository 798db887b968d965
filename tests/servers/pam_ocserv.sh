#!/usr/bin/env bash
# ocserv with PAM and openconnect: failures are counted, a blocked user is refused. Nothing is recorded,
# as the records have no code for this kind of VPN.
# shellcheck disable=SC2034,SC2154
. "$(dirname "$0")/lib.sh" "$@"
need ocserv openconnect openssl ip unshare python3 /dev/net/tun "$build/lib/security/pam_zorv.so"
two_namespaces
start_records 3 4
make_certificate
pam_service ocserv deadline=2

cat >"$root/ocserv.conf" <<CONFIG
auth = "pam"
tcp-port = 443
run-as-user = nobody
run-as-group = nogroup
socket-file = $root/ocserv.socket
server-cert = $root/server.crt
server-key = $root/server.key
isolate-workers = false
max-ban-score = 0
device = vpns
ipv4-network = 10.90.0.0/24
use-occtl = false
cookie-timeout = 10
CONFIG
start_server() {
  run_in "$server" server.log "$root/with_pam" ocserv -f -c "$root/ocserv.conf"
  ocserv=$pid
  await 20 in_server sh -c 'ss -ltn | grep -q ":443 "' || fail "the server does not start"
}

# login USER PASSWORD: leaves "in" or "refused" in $result; who is in stays, as process $vpn.
login() {
  : >"$root/client.log"
  echo "$2" >"$root/password"
  # shellcheck disable=SC2016
  run_in "$client" client.log sh -c 'exec openconnect --protocol=anyconnect --no-dtls --user="$1" --passwd-on-stdin \
    --cafile="$0/server.crt" --script="$0/script" https://10.99.0.1 <"$0/password"' "$root" "$1"
  vpn=$pid
  result="no answer"
  await 30 login_is_over || return 0
  result=refused
  ! is_in || result=in
}
is_in() { grep -q '^connected ' "$root/client.log"; }
login_is_over() { is_in || ! kill -0 "$vpn" 2>/dev/null; }
leave() { end "$vpn" "${1:-INT}"; }
# shellcheck disable=SC2016
printf '%s\n' '#!/bin/sh' '[ "$reason" != connect ] || {' \
  '  ip addr add "$INTERNAL_IP4_ADDRESS/24" dev "$TUNDEV" && ip link set "$TUNDEV" up mtu 1300' \
  '  echo "connected $INTERNAL_IP4_ADDRESS"; }' >"$root/script"
chmod 755 "$root/script"

kill_server() {
  end "$ocserv" KILL
  for pid in $(in_server pidof ocserv); do end "$pid" KILL; done
  rm -f "$root"/ocserv.socket*
}
pam_story 10.90.0.1
expect_rows server-log id <<<""
echo "passed: counted, blocked, lifted; nobody was refused for the daemon's sake"
