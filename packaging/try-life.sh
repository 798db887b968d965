#!/bin/sh
# Run in a booted root that has the package, by try-booted.sh: it goes and comes back, in this version
# and, where /srv/old.deb is there, in an older one. Calls go on, and the records stay.
set -eu
trap '[ $? -eq 0 ] || journalctl --no-pager -n 40' EXIT
step() { printf '\n-- %s\n' "$1"; }
not() { ! "$@"; }
each() { # enabled|active UNIT ...
  state=$1
  shift
  for unit in "$@"; do systemctl "is-$state" "$unit"; done
}
rows=$(zorvctl server-log list -n 0 -j | wc -l)

# Adds a row, to a daemon that may not have started yet, and finds it with all that were there.
expect_serving() {
  each active platformd.service zorvd.service >/dev/null
  for _ in $(seq 200); do
    zorvctl server-log list -q >/dev/null 2>&1 && break
    sleep 0.05
  done
  zorvctl server-log add --username alice --vpn-type openvpn --action login-ok
  rows=$((rows + 1))
  [ "$(zorvctl server-log list -n 0 -j | wc -l)" -eq "$rows" ]
  zorvctl block policy | grep -q limit
}
expect_stopped() {
  not systemctl is-active zorvd.service zorvd.socket platformd.service zorvd-logrotate.timer
  [ -s /etc/config/zorv/zorv.db ]
  [ -s /var/log/network/ZORV.log ]
}

step "over itself, while calls come"
(for _ in $(seq 100); do zorvctl client-log add --username bob || echo lost; done) >/tmp/lost 2>&1 &
dpkg --install /srv/zorvd.deb
wait
[ ! -s /tmp/lost ]
expect_serving

if [ -e /srv/old.deb ]; then
  step "the older one, afresh"
  dpkg --purge zorvd
  dpkg --install /srv/old.deb
  echo '{"global": {"enable": true, "limit": 1, "time": 5}}' >/etc/config/vpn_block.conf
  expect_serving
  echo '# mine' >>/etc/logrotate.d/zorvd

  step "upgraded"
  dpkg --force-confold --install /srv/zorvd.deb
  expect_serving
  each active zorvd.socket zorvd-logrotate.timer
  [ "$(tail -n 1 /etc/zorv/logrotate.conf)" = '# mine' ]
  [ ! -e /etc/logrotate.d/zorvd ]
  zorvctl block policy | grep 'limit *1 '

  step "and back"
  dpkg --install /srv/old.deb
  expect_serving
  not systemctl is-active zorvd.socket zorvd-logrotate.timer
  [ -x /etc/zorv/openvpn-hook ]

  step "and upgraded again"
  dpkg --force-confold --install /srv/zorvd.deb
  expect_serving
  each enabled zorvd.socket zorvd-logrotate.timer
fi

step "removed, while OpenVPN's configuration names the hook"
mkdir -p /etc/openvpn/server
echo 'client-connect "/usr/bin/zorvctl hook openvpn"' >/etc/openvpn/server/old.conf
echo 'client-connect /etc/zorv/openvpn-hook' >/etc/openvpn/server/new.conf
dpkg --remove zorvd 2>&1 | tee /tmp/said
grep -qx /etc/openvpn/server/old.conf /tmp/said
not grep -q new.conf /tmp/said
expect_stopped
[ ! -e /usr/bin/zorvctl ]
[ ! -e /usr/local/sbin/notify ]
env script_type=client-connect /etc/zorv/openvpn-hook /tmp/file
not env script_type=user-pass-verify /etc/zorv/openvpn-hook /tmp/file

step "back again"
dpkg --install /srv/zorvd.deb
expect_serving
[ "$(stat -c '%a %U %G' /var/log/network/ZORV.log)" = "640 root adm" ]

step "purged"
dpkg --purge zorvd 2>&1 | tee /tmp/said
grep -qx /etc/openvpn/server/new.conf /tmp/said
expect_stopped
[ ! -e /etc/zorv ]
[ ! -e /etc/logrotate.d/zorvd ]
[ ! -e /etc/config/vpn_block.conf ]
rm /etc/openvpn/server/*.conf

step "and installed anew"
dpkg --install /srv/zorvd.deb
expect_serving
zorvctl block policy | grep 'limit *5 '
each enabled platformd.service zorvd.socket zorvd.service zorvd-logrotate.timer
