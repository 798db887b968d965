# What the scripts of this folder share: real VPN servers in network namespaces, with the daemon in a
# root of its own. Sourced by each as
#
#   . "$(dirname "$0")/lib.sh" BUILD_FOLDER
#
# A script ends with 0, with 77 after skip, or with 1 after fail. Whatever it started and made is gone
# then: processes by their ids and those of its own namespaces, the namespaces, the root.
# shellcheck shell=bash disable=SC2034,SC2154
set -euo pipefail
build=$(cd "$1" && pwd)
bin=$build/bin
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export PATH=$bin:/usr/sbin:/sbin:$PATH

skip() { echo "skipped: $1"; exit 77; }
fail() {
  echo "FAILED: $1" >&2
  tail -n 25 "$root"/*.log >&2
  exit 1
}

# need TOOL_OR_FILE ...
need() {
  local thing
  [ "$(id -u)" -eq 0 ] || skip "needs root rights for network namespaces"
  for thing in "$@"; do
    case "$thing" in
      /*) [ -e "$thing" ] || skip "there is no $thing" ;;
      *) command -v "$thing" >/dev/null || skip "$thing is not installed" ;;
    esac
  done
}

# Short, because it becomes a part of abstract socket names.
root=$(mktemp -d /tmp/zs.XXXXXX)
started=()
namespaces=()
finish() {
  local pid name
  set +e
  for pid in "${started[@]}"; do kill "$pid" 2>/dev/null; done
  for name in "${namespaces[@]}"; do
    for pid in $(ip netns pids "$name" 2>/dev/null); do kill -KILL "$pid" 2>/dev/null; done
    ip netns del "$name" 2>/dev/null
  done
  wait 2>/dev/null
  rm -rf "$root"
}
trap finish EXIT

# await SECONDS COMMAND ...: asks again until the command succeeds; false when it does not.
await() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$end" ] || return 1
    sleep 0.05
  done
}

# two_namespaces: $server with 10.99.0.1 and $client with 10.99.0.2, joined by a cable.
two_namespaces() {
  server=zs$$
  client=zc$$
  local name
  for name in "$server" "$client"; do
    ip netns add "$name" 2>/dev/null || skip "no network namespaces"
    namespaces+=("$name")
    ip -n "$name" link set lo up
  done
  ip -n "$server" link add cable type veth peer name cable netns "$client"
  ip -n "$server" addr add 10.99.0.1/24 dev cable
  ip -n "$client" addr add 10.99.0.2/24 dev cable
  ip -n "$server" link set cable up
  ip -n "$client" link set cable up
}
in_server() { ip netns exec "$server" "$@"; }
in_client() { ip netns exec "$client" "$@"; }

# run_in NAMESPACE LOG COMMAND ...: starts it and leaves its id in $pid.
run_in() {
  ip netns exec "$1" "${@:3}" >>"$root/$2" 2>&1 &
  pid=$!
  started+=("$pid")
}

# end PID [SIGNAL]: and waits for it.
end() {
  { kill "-${2:-TERM}" "$1" && wait "$1"; } 2>/dev/null || true
}

ctl() { in_server zorvctl "$@"; }
policy() { echo "{\"global\": {\"enable\": true, \"limit\": $1, \"time\": $2}}" >"$root/etc/config/vpn_block.conf"; }

# Leaves its id in $daemon. Abstract addresses belong to a network namespace: it runs in the server's.
start_daemon() {
  run_in "$server" daemon.log zorvd
  daemon=$pid
  await 20 daemon_answers || fail "the daemon does not answer"
}
daemon_answers() { ctl block list -q >/dev/null 2>&1; }

# start_records LIMIT MINUTES: the platform's stand-in and the daemon, with this login policy.
start_records() {
  export ZORV_ROOT=$root
  mkdir -p "$root"/etc/config/zorv "$root"/var/log/network "$root"/var/lock "$root"/var/run "$root"/usr/local/sbin
  chmod 755 "$root"
  ln -s "$bin/notify" "$root/usr/local/sbin/notify"
  policy "$1" "$2"
  run_in "$server" daemon.log platformd
  start_daemon
  await 20 platform_answers || fail "the platform's stand-in does not answer"
}
platform_answers() { ctl block policy >/dev/null 2>&1; }

# rows NOUN FIELD[,FIELD ...] [FILTER ...]: these fields of all rows, oldest first, as "a|b|c".
rows() {
  ctl "$1" list -j -n 0 --sort id "${@:3}" | python3 -c '
import json, sys
for line in sys.stdin:
    row = json.loads(line)
    print("|".join(str(row[field]) for field in sys.argv[1].split(",")))' "$2"
}

# expect_rows NOUN FIELDS [FILTER ...] <<< "LINES": waits until exactly these are there.
expect_rows() {
  local wanted
  wanted=$(cat)
  await 20 rows_are "$wanted" "$@" || fail "rows of $1 $2 should be
$wanted
and are
$(rows "$@")"
}
rows_are() { [ "$(rows "${@:2}")" = "$1" ]; }

# expect_block_notices ID ...: exactly these are sent, in this order: 0020 is blocked, 0021 not any more.
expect_block_notices() { await 20 notified "$*" || fail "block notices should be $*, are $(block_notices)"; }
notified() { [ "$(block_notices)" = "$1" ]; }
block_notices() {
  sed -n 's/.*"message_id":"\(002[01]\)".*/\1/p' "$root/var/log/network/notifications.jsonl" 2>/dev/null | xargs
}

expect_blocked() {
  local status=0
  ctl block check -q "$1" || status=$?
  [ "$status" -eq 4 ] || fail "$1 is not blocked: zorvctl block check ends with $status"
}

# start_openvpn [COMMAND ...]: an OpenVPN server with $server_options, run by the command if there is one.
# Leaves its id in $openvpn.
start_openvpn() {
  [ -e "$root/server.crt" ] || make_certificate
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
script-security 2
setenv ZORV_ROOT $root
keepalive 1 4
verb 3
$server_options
CONFIG
  : >"$root/server.log"
  run_in "$server" server.log "$@" openvpn --config "$root/server.conf"
  openvpn=$pid
  await 20 grep -q 'Initialization Sequence Completed' "$root/server.log" || fail "the server does not start"
}

# login USER PASSWORD: with $client_options; leaves "in" or "refused" in $result; who is in stays, as
# process $vpn.
login() {
  printf '%s\n' "$1" "$2" >"$root/credentials"
  printf '%s\n' client 'dev tun' 'proto udp' 'remote 10.99.0.1 1194' nobind "ca $root/server.crt" 'connect-retry-max 1' \
    'auth-retry none' 'verb 3' "$client_options" >"$root/client.conf"
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

# expect in|refused USER PASSWORD
expect() {
  login "$2" "$3"
  [ "$result" = "$1" ] || fail "$2 with password '$3' should be $1: $result"
}

# make_certificate: of the server, as server.crt and server.key in the root.
make_certificate() {
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=server \
    -addext subjectAltName=IP:10.99.0.1 -keyout "$root/server.key" -out "$root/server.crt" 2>/dev/null
}

# pam_service NAME [OPTION ...]: the documented stack, with pam_unix as the module that knows the
# passwords, and users alice and bob whose password is "secret". What "$root/with_pam" runs sees them,
# in a mount namespace of its own.
pam_service() {
  local options=("${@:2}") module=$build/lib/security/pam_zorv.so hash
  mkdir -p "$root/etc/pam.d"
  sed -e '/^auth\|^account/!d' -e '/^auth/s/pam_unix.so/& nodelay/' -e "s,pam_zorv.so,$module," -e "s/type=openvpn/${options[*]}/" \
    "$here/../../packaging/pam/zorv-vpn" >"$root/etc/pam.d/$1"
  hash=$(openssl passwd -6 secret)
  grep -vE '^(alice|bob):' /etc/passwd >"$root/passwd"
  grep -vE '^(alice|bob):' /etc/shadow >"$root/shadow"
  local user
  for user in alice bob; do
    echo "$user:x:65100:65534::/nonexistent:/usr/sbin/nologin" >>"$root/passwd"
    echo "$user:$hash:20000:0:99999:7:::" >>"$root/shadow"
  done
  chmod 600 "$root/shadow"
  # shellcheck disable=SC2016
  printf '%s\n' '#!/bin/sh' 'exec unshare --mount sh -c '\''mount --bind "$0/etc/pam.d" /etc/pam.d &&
    mount --bind "$0/passwd" /etc/passwd && mount --bind "$0/shadow" /etc/shadow && exec "$@"'\'' '"$root"' "$@"' \
    >"$root/with_pam"
  chmod 755 "$root/with_pam"
}

# pam_story ADDRESS: what a server that asks PAM lives through. The script gives start_server, kill_server,
# login USER PASSWORD as above, leave [SIGNAL], and the server's address in the tunnel.
pam_story() {
  start_server
  expect in bob secret
  in_client ping -q -c 3 -i 0.2 -W 2 "$1" >"$root/ping.log" || fail "no traffic through the tunnel"
  leave
  for _ in 1 2; do expect refused alice wrong; done
  expect_rows block username,limit_count <<<"alice|2"
  expect in alice secret
  leave
  expect_rows block username,limit_count <<<""
  for _ in 1 2 3; do expect refused alice wrong; done
  expect_blocked alice
  expect refused alice secret
  expect_rows block username,limit_count <<<"alice|3"
  expect in bob secret # the others are not touched by it
  leave
  ctl block remove -q alice
  expect in alice secret
  leave KILL

  # A daemon that is stopped, or not there, refuses nobody.
  kill -STOP "$daemon"
  expect refused alice wrong
  expect in alice secret
  leave
  kill -CONT "$daemon"
  expect_rows block username,limit_count <<<""
  end "$daemon"
  expect in alice secret
  leave
  expect refused alice wrong
  start_daemon
  expect refused alice wrong
  expect_rows block username,limit_count <<<"alice|1"

  # A server that dies takes no count along.
  kill_server
  start_server
  for _ in 1 2; do expect refused alice wrong; done
  expect refused alice secret
  expect_blocked alice
  expect_block_notices 0020 0021 0020
}
