#!/bin/sh
# Run by systemd in a booted root that has zorvd, zorv-ship and PostgreSQL: the shipper's unit, confined as it is,
# with a password that is a credential.
set -eu
trap '[ $? -eq 0 ] || { journalctl --no-pager -n 60; systemctl exit 1; }' EXIT

sql() { runuser -u postgres -- psql -qAtX "$@"; }
until_there() {
  for _ in $(seq 400); do
    [ "$(sql -c 'SELECT username FROM zorv.server_log ORDER BY id' | xargs)" = "$1" ] && return
    sleep 0.05
  done
  sql -c 'TABLE zorv.server_log'
  return 1
}

systemctl start postgresql@15-main.service
zorv-ship --schema | sql
sql -c "CREATE ROLE \"nas-017\" LOGIN PASSWORD 'secret' IN ROLE zorv_writer"
mkdir -p /etc/zorv-ship
printf '%s\n' '[vpnlogs]' host=localhost dbname=postgres user=nas-017 >/etc/zorv-ship/service
echo 'localhost:*:*:nas-017:secret' >/etc/zorv-ship/passwords
chmod 600 /etc/zorv-ship/*
echo 'OPTIONS="--to service=vpnlogs --name nas-017 --interval 1"' >/etc/default/zorv-ship
zorvctl server-log clean --all
zorvctl server-log add --username dora --action login-ok
systemctl enable --now zorv-ship.service
until_there dora
systemctl restart postgresql@15-main.service zorvd.service
zorvctl server-log add --username emil --action login-ok
until_there 'dora emil'
systemctl stop zorv-ship.service
zorvctl server-log add --username fred --action login-fail
systemctl start zorv-ship.service
until_there 'dora emil fred'
systemctl show -p Result zorv-ship.service
journalctl -u zorv-ship --no-pager -o cat
echo "the shipper ships"
systemctl exit 0
