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
kill_server() { end "$openvpn" KILL; }
leave() {
  end "$vpn" "$@"
  # A server notices by itself that a client is gone.
  [ "${1:-}" != KILL ] || await 20 logged_out alice 2 || fail "a killed client stays logged in"
}
logged_out() { [ "$(rows server-log id action=logout "username=$1" | wc -l)" -eq "$2" ]; }

pam_story 10.8.0.1
counts=$(rows server-log username,vpn_type,action,source_ip | sort | uniq -c | sed 's/^ *//')
[ "$counts" = "10 alice|4|1|10.99.0.2
2 alice|4|2|10.99.0.2
2 alice|4|3|10.99.0.2
2 bob|4|2|10.99.0.2
2 bob|4|3|10.99.0.2" ] || fail "other rows than what was done: $counts"
echo "passed: recorded, counted, blocked, lifted; nobody was refused for the daemon's sake"
