#!/usr/bin/env bash
# OpenVPN's own PAM plugin with pam_zorv.so, and zorvctl's hook for logins and logouts.
# shellcheck disable=SC2034,SC2154
. "$(dirname "$0")/lib.sh" "$@"
plugin=$(find /usr/lib -name openvpn-plugin-auth-pam.so 2>/dev/null | head -n 1)
need openvpn openssl ip unshare python3 /dev/net/tun "$build/lib/security/pam_zorv.so" "${plugin:-/usr/lib/openvpn}"
two_namespaces
start_records 3 60
pam_service openvpn type=openvpn deadline=2

client_options='explicit-exit-notify 1'
server_options="username-as-common-name
plugin $plugin \"openvpn login USERNAME password PASSWORD\"
client-connect \"$bin/zorvctl hook openvpn\"
client-disconnect \"$bin/zorvctl hook openvpn\"
explicit-exit-notify 1"
start_server() { start_openvpn "$root/with_pam"; }
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
