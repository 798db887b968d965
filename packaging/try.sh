#!/bin/sh
# Run inside a root that has the package installed: starts the daemon, uses it, stops it and removes the
# package. Every step must work; the last line says so.
set -eu
step() { printf '\n-- %s\n' "$1"; }

step "starting"
mount -t proc proc /proc
platformd --log-file /var/log/network/platformd.log >/dev/null &
platform=$!
zorvd -d -p /var/run/zorvd.pid
for _ in $(seq 200); do
  zorvctl server-log list -q >/dev/null 2>&1 && break
  sleep 0.05
done
cat /var/run/zorvd.pid
dpkg --print-architecture

step "using"
zorvctl server-log add --username alice --vpn-type openvpn --action login-ok --source-ip 192.0.2.7
zorvctl server-log list
zorvctl server-log list username=alice -j | grep '192.0.2.7'
zorvctl block policy -j | grep -x '{"enable": true, "limit": 5, "time": 10}'
zorvctl block policy set --limit 1
zorvctl block fail mallory
zorvctl block check mallory && exit 1 || [ $? -eq 4 ]
zorvctl block policy set --limit 5
zorvctl uuid new
for _ in $(seq 200); do
  [ "$(wc -l 2>/dev/null </var/log/network/notifications.jsonl)" -ge 2 ] 2>/dev/null && break
  sleep 0.05
done
cat /var/log/network/notifications.jsonl
[ "$(readlink /usr/local/sbin/notify)" = /usr/lib/zorv/notify ]

step "the libraries"
ldconfig -p | grep 'libzorv.so.1 '
module=$(ls /usr/lib/*/security/pam_zorv.so)
ldd "$module" | grep 'not found' && exit 1
echo 'auth required pam_zorv.so preauth' >/etc/pam.d/vpn
dpkg --remove libpam-zorv 2>&1 | grep '/etc/pam.d/vpn'
[ ! -e "$module" ]
# pppd gets as far as the plugin's options.
pppd plugin zorv.so zorv-deadline 0 2>&1 | grep 'between 1 and 60'
echo 'plugin zorv.so' >/etc/ppp/pptpd-options
dpkg --remove zorv-ppp 2>&1 | grep '/etc/ppp/pptpd-options'

step "the watcher"
mkdir -p /var/lib/zorv-wireguard
zorv-wireguard --once wg0
[ -s /var/lib/zorv-wireguard/wg0.json ]

step "the shipper"
zorv-ship --schema | grep -q 'CREATE TABLE IF NOT EXISTS zorv.server_log'
zorv-ship --to 'host=/nowhere' --name nas 2>&1 | grep 'No such file'

step "stopping"
pid=$(cat /var/run/zorvd.pid)
kill "$pid"
while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
tail -c 60 /var/log/network/ZORV.log
[ ! -e /var/run/zorvd.pid ]
kill "$platform"
wait "$platform"

step "removing"
dpkg --verify zorvd
if [ -e /srv/old.deb ]; then
  for package in old zorvd old zorvd; do
    dpkg --force-confold --install "/srv/$package.deb"
    zorvd &
    daemon=$!
    until zorvctl server-log add --username "$package" 2>/dev/null; do sleep 0.05; done
    names=$(zorvctl server-log list -n 0 -j | sed 's/.*"username": "\([a-z]*\)".*/\1/' | sort | xargs)
    kill $daemon
    wait $daemon
  done
  [ "$names" = 'alice old old zorvd zorvd' ]
fi
dpkg --remove zorvd
[ ! -e /usr/local/sbin/notify ]
[ ! -e /usr/sbin/zorvd ]
[ -e /etc/config/zorv/zorv.db ]
dpkg --purge zorvd
[ ! -e /etc/zorv ]
[ ! -e /etc/config/vpn_block.conf ]
[ -e /etc/config/zorv/zorv.db ]
echo "the package works on $(dpkg --print-architecture)"
