#!/usr/bin/env bash
# L2TP by real programs: xl2tpd and pppd on both sides, zorv.so in the server's; then within IPsec by
# strongSwan (IKEv1, a shared secret, transport mode), as other systems' own clients call.
# shellcheck disable=SC2034,SC2154 # shared with guest/ppp.sh
set -euo pipefail
here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
. "$here/guest/enter.sh"
require pppd xl2tpd swanctl /usr/lib/ipsec/charon
enter_guest "$0" "$(readlink -f "${1:-$here/../../build/dev}")"

. "$here/guest/ppp.sh"
kind=2
declare -A proof=([near]=refuse-pap [far]='refuse-chap refuse-mschap refuse-mschap-v2')

start_server() { # LINE ... more of its configuration
  more=("$@")
  printf '%s\n' '[global]' "${@}" '[lns default]' 'ip range = 10.66.0.10-10.66.0.20' 'local ip = 10.66.0.1' \
    'name = l2tpd' 'require authentication = yes' 'pppoptfile = /run/options' 'pass peer = yes' >/run/xl2tpd.conf
  xl2tpd -D -c /run/xl2tpd.conf -s /dev/null -p /run/xl2tpd.pid -C /run/xl2tpd.control >/run/xl2tpd.log 2>&1 &
  xl2tpd=$!
}
cat >/run/options <<'OPTIONS'
plugin zorv.so
noccp
nodefaultroute
noipv6
lcp-echo-interval 2
lcp-echo-failure 3
logfile /run/pppd.log
OPTIONS

dial() {
  printf '%s\n' "name \"$2\"" "password $3" "${proof[$1]}" noauth noccp nodefaultroute noipv6 \
    "logfile /run/$1.log" >"/run/$1.options"
  printf '%s\n' '[lac vpn]' "lns = ${server[$1]}" 'autodial = yes' "pppoptfile = /run/$1.options" >"/run/$1.conf"
  ip netns exec "$1" xl2tpd -D -c "/run/$1.conf" -s /dev/null -p "/run/$1.pid" -C "/run/$1.control" \
    >"/run/$1-xl2tpd.log" 2>&1 &
  client[$1]=$!
}
kill_server() {
  kill -9 "$xl2tpd"
  wait "$xl2tpd" || true
  start_server "${more[@]}"
}

make_network
make_ppp
start_services ""
start_server

# Alice proves who she is by CHAP though EAP was possible, bob by PAP.
come_and_guess 10.66.0.1
kill_and_miss

step "a name is one however strange"
be_refused far $'eve\'%s%n\x01' WRONG
eve='^A' && ledger[-1]=${ledger[-1]/$'\x01'/$eve}

step "within IPsec, and the tunnel carried by xl2tpd itself"
modprobe xfrm_user
start_charon() { # SIDE, and its connection
  mkdir -p "/charon/$1"
  cat >"/charon/$1/strongswan.conf" <<CONF
charon {
  piddir = /charon/$1
  load = random nonce openssl aes sha1 sha2 hmac kdf kernel-netlink socket-default vici
  filelog { main { path = /run/charon-$1.log } }
  plugins { vici { socket = unix:///charon/$1/vici } }
}
CONF
  cat >"/charon/$1/swanctl.conf" <<CONF
connections { l2tp {
  version = 1
  proposals = aes256-sha256-modp2048
  $2
  local { auth = psk }
  remote { auth = psk }
  children { l2tp {
    mode = transport
    local_ts = dynamic[udp/l2tp]
    remote_ts = dynamic[udp]
    esp_proposals = aes256-sha256
  } }
} }
secrets { ike { secret = shared } }
CONF
  # Its file of a running one has a fixed place.
  STRONGSWAN_CONF=/charon/$1/strongswan.conf unshare -m \
    bash -c 'mount --make-rprivate / && mount -t tmpfs memory /var/run && exec /usr/lib/ipsec/charon' >/dev/null 2>&1 &
  until_is "charon of $1 does not start" test -S "/charon/$1/vici"
  swan "$1" --load-all --file "/charon/$1/swanctl.conf"
}
swan() { # SIDE WORD ...
  STRONGSWAN_CONF=/charon/$1/strongswan.conf swanctl "${@:2}" --uri "unix:///charon/$1/vici" >>"/run/swanctl-$1.log" 2>&1
}
kill -9 "$xl2tpd"
start_server 'force userspace = yes'
start_charon server 'local_addrs = 10.99.0.1, 10.98.0.1'
export -f start_charon until_is within swan
for machine in near far; do
  ip netns exec $machine bash -c "start_charon $machine 'local_addrs = ${address[$machine]}
    remote_addrs = ${server[$machine]}'"
  swan $machine --initiate --child l2tp
done
come_and_guess 10.66.0.1
kill_and_miss
swan server --list-sas
grep -qE '^ +in .* [0-9]{5,} bytes' /run/swanctl-server.log || fail "nothing went through IPsec"

compare_with_ledger
echo "passed: xl2tpd and pppd, plain and within IPsec, in $SECONDS s"
