#!/usr/bin/env bash
# ocserv with PAM and openconnect: failures are counted, a blocked user is refused. Nothing is recorded,
# as the records have no code for this kind of VPN.
# shellcheck disable=SC2154
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
expect() {
  login "$2" "$3"
  [ "$result" = "$1" ] || fail "$2 with password '$3' should be $1: $result"
}
leave() { end "$vpn" INT; }
# shellcheck disable=SC2016
printf '%s\n' '#!/bin/sh' '[ "$reason" != connect ] || {' \
  '  ip addr add "$INTERNAL_IP4_ADDRESS/24" dev "$TUNDEV" && ip link set "$TUNDEV" up mtu 1300' \
  '  echo "connected $INTERNAL_IP4_ADDRESS"; }' >"$root/script"
chmod 755 "$root/script"

start_server
expect in bob secret
in_client ping -q -c 3 -i 0.2 -W 2 10.90.0.1 >"$root/ping.log" || fail "no traffic through the tunnel"
for _ in 1 2; do expect refused alice wrong; done
expect_rows block username,limit_count <<<"alice|2"
expect in alice secret
leave
expect_rows block username,limit_count <<<""
for _ in 1 2 3; do expect refused alice wrong; done
expect_blocked alice
expect refused alice secret
expect_rows block username,limit_count <<<"alice|3"
ctl block remove -q alice
expect in alice secret
end "$vpn" KILL

# A daemon that is stopped, or not there, refuses nobody.
kill -STOP "$daemon"
expect refused alice wrong
expect in alice secret
leave
kill -CONT "$daemon"
expect_rows block username,limit_count <<<""
end "$daemon"
expect refused alice wrong
expect in alice secret
leave
start_daemon
expect refused alice wrong
expect_rows block username,limit_count <<<"alice|1"

# A server that dies takes no count along.
end "$ocserv" KILL
for pid in $(in_server pidof ocserv); do end "$pid" KILL; done
rm -f "$root"/ocserv.socket*
start_server
for _ in 1 2; do expect refused alice wrong; done
expect refused alice secret
expect_rows server-log id <<<""
expect_block_notices 0020 0021 0020
echo "passed: counted, blocked, lifted; nobody was refused for the daemon's sake"
