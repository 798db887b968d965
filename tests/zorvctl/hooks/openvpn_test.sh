#!/usr/bin/env bash
# A real OpenVPN server and client in network namespaces of their own, with zorvctl as the server's
# hook: logins and logouts are recorded, failed logins are counted, a blocked user is refused and can
# log in again once the block is lifted. Every row and every notification is compared.
#
# openvpn_test.sh BIN_FOLDER; exits 77 where it cannot run.
set -euo pipefail
bin=$1

skip() { echo "skipped: $1"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "needs root rights for network namespaces"
[ -c /dev/net/tun ] || skip "no /dev/net/tun"
for tool in openvpn openssl ip; do command -v "$tool" >/dev/null || skip "$tool is not installed"; done

root=$(mktemp -d /tmp/zo.XXXXXX)
server="zs$$"
client="zc$$"
started=()
finish() {
  for pid in "${started[@]}"; do kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true; done
  ip netns del "$server" 2>/dev/null || true
  ip netns del "$client" 2>/dev/null || true
  rm -rf "$root"
}
trap finish EXIT
fail() {
  echo "FAILED: $1" >&2
  tail -n 25 "$root"/server.log "$root"/client.log >&2 || true
  exit 1
}

ip netns add "$server" || skip "no network namespaces"
ip netns add "$client"
ip link add "v$server" type veth peer name "v$client"
ip link set "v$server" netns "$server"
ip link set "v$client" netns "$client"
ip -n "$server" addr add 10.99.0.1/24 dev "v$server"
ip -n "$client" addr add 10.99.0.2/24 dev "v$client"
for ns in "$server" "$client"; do ip -n "$ns" link set "v$ns" up; ip -n "$ns" link set lo up; done

# Abstract addresses belong to a network namespace: the daemon runs in the server's.
export ZORV_ROOT=$root
mkdir -p "$root"/etc/config/zorv "$root"/var/log/network "$root"/var/lock "$root"/var/run "$root"/usr/local/sbin
ln -s "$bin/notify" "$root/usr/local/sbin/notify"
echo '{"global": {"enable": true, "limit": 2, "time": 60}}' >"$root/etc/config/vpn_block.conf"
ip netns exec "$server" "$bin/platformd" >/dev/null 2>&1 &
started+=($!)
ip netns exec "$server" "$bin/zorvd" &
started+=($!)
ctl() { ip netns exec "$server" "$bin/zorvctl" "$@"; }
for _ in $(seq 200); do ctl block policy >/dev/null 2>&1 && ctl block list -q >/dev/null 2>&1 && break; sleep 0.05; done

cd "$root"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=server \
  -keyout server.key -out server.crt 2>/dev/null
cat >checker <<'CHECKER'
#!/bin/sh
[ "$(sed -n 2p "$1")" = secret ]
CHECKER
chmod 755 checker
cat >server.conf <<CONFIG
port 1194
proto udp
dev tun
topology subnet
server 10.8.0.0 255.255.255.0
ca server.crt
cert server.crt
key server.key
dh none
verify-client-cert none
username-as-common-name
script-security 2
setenv ZORV_ROOT $root
auth-user-pass-verify "$bin/zorvctl hook openvpn -- $root/checker" via-file
client-connect "$bin/zorvctl hook openvpn"
client-disconnect "$bin/zorvctl hook openvpn"
keepalive 1 10
verb 3
CONFIG
cat >client.conf <<CONFIG
client
dev tun
proto udp
remote 10.99.0.1 1194
nobind
ca server.crt
connect-retry-max 1
auth-retry none
verb 3
CONFIG
ip netns exec "$server" openvpn --config server.conf >server.log 2>&1 &
openvpn=$!
started+=("$openvpn")
for _ in $(seq 200); do grep -q 'Initialization Sequence Completed' server.log 2>/dev/null && break; sleep 0.05; done

# login PASSWORD: "in" or "refused". A client that got in vanishes without a word.
login() {
  printf 'alice\n%s\n' "$1" >credentials
  ip netns exec "$client" openvpn --config client.conf --auth-user-pass credentials >client.log 2>&1 &
  local pid=$!
  for _ in $(seq 1200); do
    grep -q 'Initialization Sequence Completed' client.log && kill -KILL "$pid" && break
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  kill "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
  if grep -q 'Initialization Sequence Completed' client.log; then echo in
  elif grep -q AUTH_FAILED client.log; then echo refused
  else echo "no answer"; fi
}
# What is sure to be the same in every run. A logout's bytes and duration are not.
rows() {
  ctl server-log list -r -q -o csv -S "@$begin" -U now | tr -d '\r' | sed -E '
    s/"linux, OpenVPN [0-9.]+[^"]*"/CLIENT/; s/,1[0-9]{9},/,TIME,/
    /,3$/ { s/,4,[0-9]+,/,4,N,/; s/,[1-9][0-9]*,[1-9][0-9]*,tun0/,N,N,tun0/ }'
}
notifications() {
  sed -E 's/.*"message_id":("[0-9]+").*"arguments":\[([^]]*)\].*/\1,\2/
    s/"[0-9-]+ [0-9:]+"/DATE/; s/"[0-9]+:[0-9]+"/N/; s/"[0-9.]+ K?B"/N/g' var/log/network/notifications.jsonl | LC_ALL=C sort |
    uniq -c | sed "s/^ *//"
}
# same WHAT WANTED: what it prints in the end.
same() {
  local found
  for _ in $(seq 200); do
    found=$("$1") || true
    [ "$found" = "$2" ] && return
    sleep 0.05
  done
  diff <(echo "$2") <(echo "$found") >&2 || true
  fail "other $1 than these"
}

begin=$(date +%s)
[ "$(login secret)" = in ] || fail "a right password was refused"
[ "$(login wrong)" = refused ] || fail "a wrong password was let in"
[ "$(login wrong)" = refused ] || fail "a wrong password was let in"
[ "$(ctl block list -o csv -q | cut -d, -f2,3)" = alice,2 ] || fail "not two failures of alice"
[ "$(login secret)" = refused ] || fail "a blocked user got in"
grep -q 'alice is refused: blocked after too many failed logins' server.log || fail "the server's log does not say why"
ctl block remove alice
# The server takes this one for alice coming back, and ends the session that she left.
[ "$(login secret)" = in ] || fail "alice cannot log in after the block was lifted"
kill "$openvpn"
same rows '1,alice,4,0,TIME,CLIENT,10.99.0.2,10.8.0.2,0,0,0,0,tun0,2
2,alice,4,0,TIME,CLIENT,10.99.0.2,,0,0,0,0,tun0,1
3,alice,4,0,TIME,CLIENT,10.99.0.2,,0,0,0,0,tun0,1
4,alice,4,0,TIME,CLIENT,10.99.0.2,,0,0,0,0,tun0,1
5,alice,4,N,TIME,CLIENT,10.99.0.2,10.8.0.2,0,0,N,N,tun0,3
6,alice,4,0,TIME,CLIENT,10.99.0.2,10.8.0.2,0,0,0,0,tun0,2
7,alice,4,N,TIME,CLIENT,10.99.0.2,10.8.0.2,0,0,N,N,tun0,3'
same notifications '3 "0017","ZORV Service",DATE," ","alice","10.99.0.2"," "," "," ","OpenVPN","Login Fail"
2 "0017","ZORV Service",DATE," ","alice","10.99.0.2","10.8.0.2"," "," ","OpenVPN","Login OK"
2 "0017","ZORV Service",DATE,N,"alice","10.99.0.2","10.8.0.2",N,N,"OpenVPN","Logout"
1 "0020","ZORV Service","alice"
1 "0021","ZORV Service","alice"'
echo "passed: recorded, counted, blocked, lifted"
