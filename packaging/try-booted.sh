#!/bin/sh
# Run by systemd in a booted root that has the package installed: the units run, confined as they are.
set -eu
trap '[ $? -eq 0 ] || { journalctl --no-pager -n 30; systemctl exit 1; }' EXIT
for unit in platformd.service zorvd.socket zorvd.service zorvd-logrotate.timer; do systemctl is-active $unit; done
for _ in $(seq 200); do
  zorvctl server-log list -q >/dev/null 2>&1 && break
  sleep 0.05
done
zorvctl server-log add --username alice --vpn-type openvpn --action login-ok
zorvctl server-log list username=alice
zorvctl session add --username alice
zorvctl uuid new
zorvctl block policy set --limit 1
zorvctl block fail mallory
zorvctl block check mallory && exit 1 || [ $? -eq 4 ]
for _ in $(seq 200); do
  [ "$(wc -l </var/log/network/notifications.jsonl)" -ge 2 ] 2>/dev/null && break
  sleep 0.05
done
cat /var/log/network/notifications.jsonl
journalctl -t notify --no-pager -o cat
ls -l /etc/config/zorv /var/log/network
before=$(zorvctl client-log list -n 0 -j | wc -l)
(for _ in $(seq 100); do zorvctl client-log add --username bob || echo lost; done) >/tmp/lost 2>&1 &
for _ in 1 2 3; do systemctl restart zorvd.service; done
wait
[ ! -s /tmp/lost ]
[ "$(zorvctl client-log list -n 0 -j | wc -l)" -eq $((before + 100)) ]
systemctl stop platformd.service zorvd.service
# The beginning of the database is gone, and its rows are not.
dd if=/dev/zero of=/etc/config/zorv/zorv.db bs=1 count=100 conv=notrunc
systemctl start zorvd.service
ls -l /etc/config/zorv/zorv.db@*
zorvctl server-log list -q username=alice | grep alice
systemctl is-active platformd.service
systemctl stop zorvd.socket zorvd.service platformd.service
systemctl --failed --no-legend --plain | grep -E '^(zorvd|platformd)' && exit 1
systemctl start zorvd.socket zorvd.service zorvd-logrotate.timer

# Logs are put aside when they are large, and stay what they were.
head -c 11M /dev/zero >>/var/log/network/ZORV.log
systemctl start zorvd-logrotate.service
zorvctl server-log list -q >/dev/null
stat -c '%a %U %G %n' /var/log/network/*
[ "$(stat -c %s /var/log/network/ZORV.log.1)" -gt 11000000 ]
[ -s /var/log/network/ZORV.log ]
[ -z "$(find /var/log/network \( -name 'ZORV.log*' -o -name 'notifications.jsonl*' \) ! -perm 640)" ]

/srv/try-life.sh
echo "the units work"
systemctl exit 0
