#!/usr/bin/env bash
# OpenVPN's own PAM plugin with pam_zorv.so, and zorvctl's hook for logins and logouts.
# shellcheck disable=SC2154
. "$(dirname "$0")/lib.sh" "$@"
plugin=$(find /usr/lib -name openvpn-plugin-auth-pam.so 2>/dev/null | head -n 1)
need openvpn openssl ip unshare python3 /dev/net/tun "$build/lib/security/pam_zorv.so" "${plugin:-/usr/lib/openvpn}"
two_namespaces
start_records 3 60
make_certificate
pam_service openvpn type=openvpn deadline=2

cat >"$root/server.conf" <<CONFIG
port 1194
proto udp
dev tun
topology subnet
server 10.8.0.0 255.255.255.0
ca $root/server.crt
cert $root/server.crt
key $root/server.key
dh none
verify-client-cert none
username-as-common-name
plugin $plugin "openvpn login USERNAME password PASSWORD"
script-security 2
setenv ZORV_ROOT $root
client-connect "$bin/zorvctl hook openvpn"
client-disconnect "$bin/zorvctl hook openvpn"
explicit-exit-notify 1
keepalive 1 4
verb 3
CONFIG
cat >"$root/client.conf" <<CONFIG
client
dev tun
proto udp
remote 10.99.0.1 1194
nobind
ca $root/server.crt
explicit-exit-notify 1
connect-retry-max 1
auth-retry none
verb 3
CONFIG

start_server() {
  : >"$root/server.log"
  run_in "$server" server.log "$root/with_pam" openvpn --config "$root/server.conf"
  openvpn=$pid
  await 20 grep -q 'Initialization Sequence Completed' "$root/server.log" || fail "the server does not start"
}

# login USER PASSWORD: leaves "in" or "refused" in $result; who is in stays, as process $vpn.
login() {
  printf '%s\n' "$1" "$2" >"$root/credentials"
  : >"$root/client.log"
  run_in "$client" client.log openvpn --config "$root/client.conf" --auth-user-pass "$root/credentials"
  vpn=$pid
  result="no answer"
  await 30 login_is_over || return 0
  if grep -q 'Initialization Sequence Completed' "$root/client.log"; then result=in; return 0; fi
  wait "$vpn" || true
  ! grep -q AUTH_FAILED "$root/client.log" || result=refused
}
login_is_over() { grep -q 'Initialization Sequence Completed' "$root/client.log" || ! kill -0 "$vpn" 2>/dev/null; }
expect() {
  login "$2" "$3"
  [ "$result" = "$1" ] || fail "$2 with password '$3' should be $1: $result"
}
fields=username,vpn_type,action,source_ip

start_server
expect in bob secret
end "$vpn"
expect_rows server-log "$fields" <<<"bob|4|2|10.99.0.2
bob|4|3|10.99.0.2"
expect refused alice wrong
expect refused alice wrong
expect_rows block username,limit_count <<<"alice|2"
expect in alice secret
end "$vpn"
expect_rows block username,limit_count <<<""
for _ in 1 2 3; do expect refused alice wrong; done
expect_blocked alice
expect refused alice secret
expect_rows server-log "$fields" action=login-fail <<<"alice|4|1|10.99.0.2
alice|4|1|10.99.0.2
alice|4|1|10.99.0.2
alice|4|1|10.99.0.2
alice|4|1|10.99.0.2
alice|4|1|10.99.0.2"
expect in bob secret # the others are not touched by it
end "$vpn"
ctl block remove -q alice
expect in alice secret
in_client ping -q -c 3 -i 0.2 -W 2 10.8.0.1 >"$root/ping.log" || fail "no traffic through the tunnel"
end "$vpn" KILL # the server notices by itself
expect_rows server-log username,source_ip action=logout username=alice <<<"alice|10.99.0.2
alice|10.99.0.2"
expect_rows server-log username,source_ip action=logout username=bob <<<"bob|10.99.0.2
bob|10.99.0.2"

# A daemon that is stopped, or not there, refuses nobody.
kill -STOP "$daemon"
expect refused alice wrong
expect in alice secret
end "$vpn"
kill -CONT "$daemon"
expect_rows block username,limit_count <<<""
end "$daemon"
expect in alice secret
end "$vpn"
expect refused alice wrong
start_daemon
expect refused alice wrong
expect_rows block username,limit_count <<<"alice|1"

# A server that dies takes no block along.
end "$openvpn" KILL
start_server
for _ in 1 2; do expect refused alice wrong; done
expect refused alice secret
expect_blocked alice
expect_block_notices 0020 0021 0020
echo "passed: recorded, counted, blocked, lifted; nobody was refused for the daemon's sake"
