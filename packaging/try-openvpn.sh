#!/bin/sh
# Run by systemd in a booted root that has zorvd and OpenVPN: a client logs in, and the machine is powered off
# while it is. Its Logout has to be in the database then.
set -eu
trap '[ $? -eq 0 ] || { journalctl --no-pager -n 60; systemctl exit 1; }' EXIT
server=/etc/openvpn/server

case ${1:-} in
  prepare)
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=server \
      -keyout $server/office.key -out $server/office.crt 2>/dev/null
    cat >$server/office.conf <<CONFIG
dev tun
topology subnet
server 10.8.0.0 255.255.255.0
ca office.crt
cert office.crt
key office.key
dh none
verify-client-cert none
keepalive 10 60
script-security 2
username-as-common-name
client-connect        "/etc/zorv/openvpn-hook"
client-disconnect     "/etc/zorv/openvpn-hook"
auth-user-pass-verify "/etc/zorv/openvpn-hook -- /bin/grep -qx secret" via-file
CONFIG
    printf '%s\n' carol secret >/srv/credentials
    printf '%s\n' client 'dev tun' 'remote 10.99.0.1' nobind "ca $server/office.crt" 'auth-user-pass /srv/credentials' \
      >/srv/client.conf
    systemctl enable openvpn-server@office.service
    trap - EXIT
    exit
    ;;
esac

started() { systemctl show --value -p ActiveEnterTimestampMonotonic "$1"; }
[ "$(started zorvd.service)" -lt "$(started openvpn-server@office.service)" ]

ip netns add far
ip link add cable type veth peer name cable netns far
ip addr add 10.99.0.1/24 dev cable
ip -n far addr add 10.99.0.2/24 dev cable
ip link set cable up
ip -n far link set cable up
# Until the very end, so that the server logs the client out and not the client itself.
systemd-run --quiet --unit=client -p DefaultDependencies=no ip netns exec far openvpn --config /srv/client.conf
for _ in $(seq 400); do
  zorvctl server-log list -q username=carol 2>/dev/null | grep -q carol && break
  sleep 0.05
done
zorvctl server-log list username=carol
zorvctl server-log list -q username=carol | grep -q carol
systemctl poweroff
