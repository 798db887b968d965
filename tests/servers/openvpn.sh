#!/usr/bin/env bash
# OpenVPN with zorvctl as the script of a server that renegotiates every few seconds, and of a client.
# shellcheck disable=SC2016,SC2034,SC2154
. "$(dirname "$0")/lib.sh" "$@"
need openvpn openssl ip ping python3 /dev/net/tun
two_namespaces
start_records 3 60

printf '%s\n' '#!/bin/sh' '[ "$(sed -n 2p "$1")" = secret ]' >"$root/checker"
printf '%s\n' '#!/bin/sh' "env >\"$root/\$script_type.env\"" "exec $bin/zorvctl hook openvpn \"\$@\"" >"$root/hook"
chmod 755 "$root/checker" "$root/hook"
server_with() { # HOOK_OPTION ...
  server_options="username-as-common-name
server-ipv6 fd08::/64
auth-user-pass-verify \"$bin/zorvctl hook openvpn $* -- $root/checker\" via-file
client-connect \"$root/hook $*\"
client-disconnect \"$root/hook $*\"
reneg-sec 5"
}
client_options='explicit-exit-notify 1'
renegotiated() { [ "$(grep -c "authentication succeeded for username '$1'" "$root/server.log")" -gt "$2" ]; }
await_renegotiation() {
  await 20 renegotiated "$1" "$(grep -c "authentication succeeded for username '$1'" "$root/server.log")" ||
    fail "no renegotiation of $1"
}
told() { sed -n "s/^$2=//p" "$root/$1.env"; }
fields=username,vpn_type,action,source_ip,vpn_ip,time,uptime,tx_total,rx_total
failures() { rows server-log id action=login-fail username=alice | wc -l; }

# Wrong passwords of a stranger block alice and leave the session alone that she has.
server_with --deadline 1
start_openvpn
expect in alice secret
alice=$vpn
for _ in 1 2 3; do expect refused alice wrong; done
expect_blocked alice
await_renegotiation alice
await_renegotiation alice
in_client ping -q -c 2 -i 0.2 -W 2 10.8.0.1 >"$root/ping.log" || fail "the block has ended a session"
expect refused alice secret
grep -q 'AUTH_FAILED,blocked, try again in 60 minutes' "$root/client.log" || fail "the client is not told why"
grep -q 'alice is refused: blocked after too many failed logins' "$root/server.log" || fail "the log does not say why"
[ "$(failures)" -eq 4 ] || fail "$(failures) failures of alice instead of 4"
end "$alice"
await 20 [ -s "$root/client-disconnect.env" ] || fail "no logout"
login_time=$(told client-connect time_unix)
address="10.99.0.2|10.8.0.2,fd08::1000"
expect_rows server-log "$fields" username=alice action=login-ok <<<"alice|4|2|$address|$login_time|0|0|0"
duration=$(told client-disconnect time_duration)
expect_rows server-log "$fields" username=alice action=logout <<<"alice|4|3|$address|$((login_time + duration))|$duration|$(
  told client-disconnect bytes_sent)|$(told client-disconnect bytes_received)"

# The block lifted; and right passwords forget wrong ones.
expect in bob secret
end "$vpn" KILL
ctl block remove -q alice
for _ in 1 2; do
  expect in alice secret
  end "$vpn"
  expect refused alice wrong
  expect refused alice wrong
done
expect_rows block username,limit_count <<<"alice|2"
expect_rows server-log username,action username=bob <<<"bob|2
bob|3"
expect_block_notices 0020 0021

# A daemon that is mute, or not there, refuses nobody, unless it is told to.
kill -STOP "$daemon"
expect refused bob wrong
expect in bob secret
end "$vpn"
kill -CONT "$daemon"
end "$openvpn"
server_with --on-daemon-away refuse --deadline 1
server_options+="
auth-gen-token 3600 120 external-auth"
start_openvpn
end "$daemon"
expect refused bob secret
grep -q 'AUTH_FAILED,logins cannot be checked now' "$root/client.log" || fail "the client is not told why"
start_daemon

# A renegotiation shows the token that the server gave in place of a password.
expect in bob secret
await_renegotiation bob
await_renegotiation bob
in_client ping -q -c 2 -i 0.2 -W 2 10.8.0.1 >"$root/ping.log" || fail "a token has ended a session"
expect_rows block username,limit_count <<<"alice|2"
end "$openvpn" KILL
end "$vpn"

# A client with a daemon of its own.
start_openvpn
mkdir -p "$root/nas"/etc/config/zorv "$root/nas"/var/{log/network,lock,run}
run_in "$client" nas.log env "ZORV_ROOT=$root/nas" zorvd
nas() { in_client env "ZORV_ROOT=$root/nas" zorvctl client-log list -q -o csv --sort id; }
await 20 nas >/dev/null 2>&1 || fail "the client's daemon does not answer"
client_options="script-security 2
setenv ZORV_ROOT $root/nas
setenv username office
route-up \"$bin/zorvctl hook openvpn\"
down \"$bin/zorvctl hook openvpn\"
down-pre"
begin=$(date +%s)
expect in bob secret
in_client bash -c 'for _ in {1..20}; do printf %01000d 0 >/dev/udp/10.8.0.1/9; done' 2>/dev/null || true
device=$(in_client ip -o -4 addr show to 10.8.0.0/24 | awk '{print $2}')
end "$vpn"
nas | tr -d '\r' >"$root/nas.csv"
python3 - "$begin" "$root/nas.csv" <<'CHECK' || fail "other rows of the client $device: $(cat "$root/nas.csv")"
import csv, sys
begin, now = int(sys.argv[1]), __import__("time").time()
up, down = csv.reader(open(sys.argv[2]))
assert up[1:3] == down[1:3] == ["office", "1024"] and up[12] == "2" and down[12] == "3", "who"
assert up[5] == down[5] == "10.8.0.2,fd08::1000", "where"
assert begin <= int(up[4]) <= int(down[4]) <= now and int(down[3]) == int(down[4]) - int(up[4]), "when"
assert 5000 < int(down[8]) and 0 < int(down[9]) < int(down[8]) / 2, "what"
CHECK
echo "passed: recorded to the byte, counted, blocked, told; renegotiations and tokens are no logins"
