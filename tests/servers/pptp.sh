#!/usr/bin/env bash
# PPTP by real programs: pptpd and pppd with zorv.so on one side, pptp under pppd on the other.
# shellcheck disable=SC2034,SC2154 # shared with guest/ppp.sh
set -euo pipefail
here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
. "$here/guest/enter.sh"
require pppd pptpd pptp
enter_guest "$0" "$(readlink -f "${1:-$here/../../build/dev}")"

. "$here/guest/ppp.sh"
kind=1

# Each machine has records of its own, below a root that bears its name.
dial() {
  ZORV_ROOT=/$1 ip netns exec "$1" pppd plugin zorv.so nodetach maxfail 1 noauth nodefaultroute noipv6 ipparam client \
    require-mppe-128 remotename pptpd name "$2" password "$3" pty "pptp ${server[$1]} --nolaunchpppd" > >(tee -a "/run/all-$1.log" >"/run/$1.log") 2>&1 &
  client[$1]=$!
}
kill_server() { # of MACHINE: pptpd's process of that call
  kill -9 "$(pgrep -f "^pptpd \[${address[$1]}")"
}

cat >/run/options <<'OPTIONS'
plugin zorv.so
zorv-deadline 2
name pptpd
require-mschap-v2
require-mppe-128
nodefaultroute
noipv6
nobsdcomp
lock
lcp-echo-interval 2
lcp-echo-failure 3
chap-interval 2
debug
logfile /run/pppd.log
OPTIONS
printf '%s\n' 'option /run/options' 'localip 10.77.0.1' 'remoteip 10.77.0.10-20' >/run/pptpd.conf

make_network
make_ppp
start_services ""
mkdir -p /near/etc/config/zorv /near/var/log/network /near/var/lock
ZORV_ROOT=/near ip netns exec near "$bin/zorvd" &
pptpd -f -c /run/pptpd.conf -o /run/options >/run/pptpd.log 2>&1 &

come_and_guess 10.77.0.1
called="2 256 alice ${in_tunnel[near]} 0 0
3 256 alice ${in_tunnel[near]} $(sed -n 's/^Sent \([0-9]*\) bytes, received \([0-9]*\) bytes\.$/\1 \2/p' /run/near.log)"
grep -q 'Blocked, try again in 5 minutes' /run/all-far.log || fail "bob was not told that he is blocked"

step "a session outlives a block, and an answer to a challenge is no login"
for _ in 1 2 3; do "$bin/zorvctl" block fail bob; done
count_responses() {
  local line
  responses=0
  while read -r line; do [[ $line != 'rcvd [CHAP Response'*'"bob"'* ]] || ((++responses)); done </run/pppd.log
}
was_challenged_twice() { count_responses && [ "$responses" -ge $((before + 2)) ]; }
count_responses
before=$responses
until_is "bob is not challenged" was_challenged_twice
told_besides+=('0020 bob')

"$bin/zorvctl" block remove bob
told_besides+=('0021 bob')

kill_and_miss
grep -q 'the login of alice goes on without asking whether it is blocked' /run/pppd.log || fail "nothing was said"
compare_with_ledger

step "the machine that called has kept its side"
sqlite3 -separator ' ' /near$database 'SELECT action, vpn_type, username, vpn_ip, tx_total, rx_total
  FROM conn_client_log WHERE id <= 2' | diff - <(echo "$called") || fail "the rows are not what the client did"
echo "passed: pptpd, pppd and pptp, in $SECONDS s"
