#!/usr/bin/env bash
# WireGuard in user space, two clients of one server, watched by zorv-wireguard.
# shellcheck disable=SC2015,SC2154
. "$(dirname "$0")/lib.sh" "$@"
need ip python3 ping wg wireguard-go /dev/net/tun
two_namespaces
start_records 3 60
export WG_I_PREFER_BUGGY_USERSPACE_TO_POLISHED_KMOD=1
interface=wg$$

# tunnel NAMESPACE INTERFACE ADDRESS/BITS WORD ...: made anew, with these words for "wg set".
tunnel() {
  run_in "$1" tunnel.log wireguard-go -f "$2"
  tunnel=$pid
  await 10 ip netns exec "$1" wg set "$2" "${@:4}" 2>/dev/null || fail "no interface $2"
  ip -n "$1" addr add "$3" dev "$2"
  ip -n "$1" link set "$2" up
}
umask 077
for name in server alice bob; do
  wg genkey >"$root/$name.key"
done
public() { wg pubkey <"$root/$1.key"; }
start_server() {
  tunnel "$server" "$interface" 10.55.0.1/24 listen-port 51820 private-key "$root/server.key" \
    peer "$(public alice)" allowed-ips 10.55.0.2/32,fd55::2/128 peer "$(public bob)" allowed-ips 10.55.0.3/32
  server_tunnel=$tunnel
}
start_client() { # NAME HOST
  tunnel "$client" "$1$$" "10.55.0.$2/32" private-key "$root/$1.key" \
    peer "$(public server)" endpoint 10.99.0.1:51820 allowed-ips 10.55.0.1/32
  ip -n "$client" route add 10.55.0.1/32 dev "$1$$" table "$2"
  ip -n "$client" rule add from "10.55.0.$2" table "$2" 2>/dev/null
}
traffic() { in_client ping -q -c 3 -i 0.2 -s 1000 -W 2 -I "10.55.0.$1" 10.55.0.1 >"$root/ping.log" || fail "no traffic"; }

mkdir -p "$root/wireguard" "$root/state"
printf '[Interface]\nListenPort = 51820\n\n# bob\n[Peer]\nPublicKey = %s\n' "$(public bob)" >"$root/wireguard/$interface.conf"
echo "$(public alice) alice" >"$root/names"
watch=(zorv-wireguard --names /names --quick /wireguard --state /state --interval 1 "$interface")
start_watcher() {
  run_in "$server" watcher.log "${watch[@]}"
  watcher=$pid
}
columns=username,vpn_type,action,source_ip,vpn_ip,outgoing
alice="alice|32|A|10.99.0.2|10.55.0.2,fd55::2|$interface"
bob="bob|32|A|10.99.0.2|10.55.0.3|$interface"

# From before the interface is there; stopped and killed in between, with the daemon away, too.
start_watcher
start_server
start_client alice 2
alice_tunnel=$tunnel
start_client bob 3
traffic 2
expect_rows server-log "$columns" <<<"${alice/A/2}"
traffic 3
expect_rows server-log "$columns" <<<"${alice/A/2}
${bob/A/2}"
[ "$(rows server-log time username=alice)" = "$(in_server wg show "$interface" latest-handshakes | grep -F "$(public alice)" | cut -f 2)" ] ||
  fail "the login is not at the time of the handshake"
end "$watcher"
end "$daemon"
traffic 3
in_server "${watch[@]}" --once || fail "there is nothing to record, and yet something is left to be done"
transferred=$(in_server wg show "$interface" transfer | grep -F "$(public bob)" | cut -f 2,3)
in_server wg set "$interface" peer "$(public bob)" remove
status=0
in_server "${watch[@]}" --once 2>>"$root/watcher.log" || status=$?
[ "$status" -eq 1 ] || fail "a row that cannot be recorded ends with $status"
start_watcher
end "$watcher" KILL
start_daemon
start_watcher
expect_rows server-log "$columns,rx_total,tx_total" username=bob <<<"${bob/A/2}|0|0
${bob/A/3}|${transferred/$'\t'/|}"

# A client that vanishes is logged out as of its last sign of life, after three minutes, and comes again.
traffic 2
gone=$(date +%s)
logged_out() { [ -n "$(rows server-log id "username=$1" action=logout)" ]; }
end "$alice_tunnel" KILL
sleep 175
await 20 logged_out alice || fail "a silent client stays logged in"
[ $(($(date +%s) - gone)) -ge 180 ] || fail "logged out too early"
last=$(rows server-log time username=alice action=logout)
[ $((last - gone)) -le 2 ] && [ $((gone - last)) -le 1 ] || fail "logged out as of $last, last heard at $gone"
start_client alice 2
traffic 2
expect_rows server-log "$columns" username=alice <<<"${alice/A/2}
${alice/A/3}
${alice/A/2}"
end "$server_tunnel" KILL
expect_rows server-log "$columns" username=alice <<<"${alice/A/2}
${alice/A/3}
${alice/A/2}
${alice/A/3}"
end "$watcher"
echo "passed: logged in and out as heard, to the byte; nothing was lost or repeated by a restart"
