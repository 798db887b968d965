# shellcheck shell=bash disable=SC2034,SC2154 # shared with who sources it
# Sourced inside the guest by tests of PPP servers: the daemon, two machines that call, and a ledger of
# what was done, which is compared with what the daemon has kept and told.
#
# The server's side is the guest's own network namespace, the machines are the namespaces "near"
# (10.99.0.2, calls 10.99.0.1) and "far" (10.98.0.2, calls 10.98.0.1). A test gives `kind`, the
# records' code of its server, dial MACHINE USER PASSWORD, which leaves a process in `client`, and
# kill_server MACHINE, after which callers are served again.

build=$1
bin=$build/bin
database=/etc/config/zorv/zorv.db
notifications=/var/log/network/notifications.jsonl
ledger=()
told_besides=()
declare -A client address=([near]=10.99.0.2 [far]=10.98.0.2) server=([near]=10.99.0.1 [far]=10.98.0.1) in_tunnel

exec 3>&1
fail() {
  {
    echo "FAILED: $1"
    tail -n 25 /run/*.log
  } >&3
  exit 1
}
step() { echo "$SECONDS s: $1"; }
set -E
trap 'fail "a command of the test, line $LINENO of ${BASH_SOURCE[0]}"' ERR

# within SECONDS COMMAND ...: asks again until it is; false when it is not by then.
mkfifo /run/never
within() {
  local end=$((SECONDS + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || return 1
    read -rt 0.05 _ <>/run/never || true
  done
}
until_is() { within 30 "${@:2}" || fail "$1"; } # WHAT COMMAND ...

make_network() {
  local machine net
  modprobe -a ppp_generic l2tp_ppp
  for machine in near:99 far:98; do
    net=${machine#*:} machine=${machine%:*}
    ip netns add $machine
    ip link add to-$machine type veth peer name out netns $machine
    ip addr add 10.$net.0.1/24 dev to-$machine
    ip link set to-$machine up
    ip -n $machine addr add 10.$net.0.2/24 dev out
    ip -n $machine link set out up
    ip -n $machine link set lo up
  done
}

# Users, and scripts that write down what pppd itself tells of a session on the server's side.
make_ppp() {
  ln -sf "$build/lib/zorv.so" "$(dirname "$(find /usr/lib/pppd -name minconn.so)")"
  rm -rf /etc/ppp/options /etc/ppp/ip*
  touch /etc/ppp/options /run/sessions
  printf '%s\n' 'alice * secret *' 'bob * hunter2 *' >/etc/ppp/chap-secrets
  cp /etc/ppp/chap-secrets /etc/ppp/pap-secrets
  cat >/etc/ppp/ip-up <<'SCRIPT'
#!/bin/sh
[ -n "$PEERNAME" ] || exit 0
echo "${0##*/} $PEERNAME $IPREMOTE $IFNAME ${CONNECT_TIME:-0} ${BYTES_SENT:-0} ${BYTES_RCVD:-0}" >>/run/sessions
SCRIPT
  chmod +x /etc/ppp/ip-up
  cp /etc/ppp/ip-up /etc/ppp/ip-down
}

# The daemon and its services below ROOT, "" for the guest's own.
start_services() {
  mkdir -p "$1"/etc/config/zorv "$1"/var/log/network "$1"/var/lock "$1"/var/run "$1"/usr/local/sbin
  ln -sf "$bin/notify" "$1/usr/local/sbin/notify"
  echo '{"global": {"enable": true, "limit": 3, "time": 5}}' >"$1/etc/config/vpn_block.conf"
  touch "$1$notifications"
  ZORV_ROOT=$1 "$bin/platformd" >/dev/null 2>&1 &
  start_daemon "$1"
}
start_daemon() {
  ZORV_ROOT=$1 "$bin/zorvd" &
  daemon=$!
  until_is "zorvd does not serve" env ZORV_ROOT="$1" "$bin/zorvctl" block policy
  until_is "zorvd does not serve" env ZORV_ROOT="$1" "$bin/zorvctl" block list -q
}
stop_daemon() { kill "$daemon" && wait "$daemon" || true; }

# are_in MACHINE PATTERN [SIGNAL]: processes whose name is like that; they are sent the signal.
are_in() {
  local process name any=1
  for process in $(ip netns pids "$1"); do
    read -r name <"/proc/$process/comm" || continue
    # shellcheck disable=SC2053 # a pattern
    [[ $name != $2 ]] || { any=0 && kill "-${3:-0}" "$process" || true; }
  done 2>/dev/null
  return $any
}
are_gone() { ! are_in "$@"; }

# pppd first, which says good-bye through a tunnel that still stands.
hang_up() {
  are_in "$1" pppd TERM || true
  within 5 are_gone "$1" pppd || true
  kill "${client[$1]}" 2>/dev/null || true
  wait "${client[$1]}" 2>/dev/null || true
}
kill_client() {
  are_in "$1" '@(pppd|pptp|xl2tpd)*' KILL || true
  wait "${client[$1]}" 2>/dev/null || true
}

# --- What is done, and the ledger of it: ACTION KIND USER CALLER ADDRESS INTERFACE UPTIME TX RX TIME ---

# find_session ip-up|ip-down USER COUNT: into `found`, the user's line behind the first COUNT.
find_session() {
  local lines
  mapfile -s "$3" -t lines </run/sessions
  for found in "${lines[@]}"; do
    [[ $found != "$1 $2 "* ]] || return 0
  done
  return 1
}
count_sessions() {
  local lines
  mapfile -t lines </run/sessions
  count=${#lines[@]}
}

# await_session ACTION MACHINE USER COUNT
await_session() {
  local script=ip-up
  [ "$1" = 2 ] || script=ip-down
  until_is "no $script of $3" find_session $script "$3" "$4"
  read -r _ _ "in_tunnel[$2]" facts <<<"$found"
  ledger+=("$1 $kind $3 ${address[$2]} ${in_tunnel[$2]} $facts $EPOCHSECONDS")
}

# call MACHINE USER PASSWORD COMMAND ...: dials until it is. A call may get stuck with the one before,
# which its server is still about to end.
call() {
  local try
  for try in 1 2 3; do
    dial "$1" "$2" "$3"
    ! within 15 "${@:4}" || return 0
    step "$2 dials once more"
    hang_up "$1"
  done
  fail "no answer to $2"
}

log_in() { # MACHINE USER PASSWORD
  local count
  count_sessions
  call "$@" find_session ip-up "$2" "$count"
  await_session 2 "$1" "$2" "$count"
}

# A session that the daemon does not get to know of.
log_in_unseen() { log_in "$@" && unset 'ledger[-1]'; }

log_out() { # MACHINE USER [COMMAND ...]: as COMMAND ends it, else by hanging up
  local count machine=$1 user=$2
  shift 2
  [ $# -gt 0 ] || set -- hang_up "$machine"
  count_sessions
  "$@"
  await_session 3 "$machine" "$user" "$count"
}

be_refused() { # MACHINE USER PASSWORD
  local count
  count_sessions
  call "$@" has_told $((${#ledger[@]} + 1))
  ledger+=("1 $kind $2 ${address[$1]} - - 0 0 0 $EPOCHSECONDS")
  ! find_session ip-up "$2" "$count" || fail "$2 got in with $3"
  hang_up "$1"
}

# Alice comes and goes; bob guesses, is blocked, and is in at the end. She sends to ADDRESS.
come_and_guess() {
  step "alice logs in, sends and goes"
  log_in near alice secret
  send_traffic near "$1"
  log_out near alice
  step "bob guesses three times, is blocked with the right password, and let in again"
  for _ in 1 2 3; do be_refused far bob WRONG; done
  be_refused far bob hunter2
  "$bin/zorvctl" block remove bob
  told_besides+=('0020 bob' '0021 bob')
  log_in far bob hunter2
}

# From there on.
kill_and_miss() {
  step "a client is killed, and the server"
  log_in near alice secret
  log_out near alice kill_client near
  log_out far bob kill_server far
  hang_up far
  step "the daemon is mute, is away, and comes back while a session runs"
  kill -STOP "$daemon"
  log_in_unseen near alice secret
  kill -CONT "$daemon"
  log_out near alice
  stop_daemon
  log_in_unseen far bob hunter2
  start_daemon ""
  log_out far bob
}

# has_told COUNT: rows; each is told once it is kept.
has_told() {
  local line told=0
  while read -r line; do
    [[ $line != *'"message_id":"0017"'* ]] || ((++told))
  done <$notifications
  [ $told -ge "$1" ]
}

# Twenty packets of 1000 bytes from MACHINE through its tunnel to ADDRESS.
send_traffic() {
  ip netns exec "$1" bash -c "for ((i = 0; i < 20; ++i)); do printf '%01000d' 0 >/dev/udp/$2/9; done" 2>/dev/null || true
}

# Every row is the ledger's, to the byte, and so is what was told of it; "${told_besides[@]}" is the
# rest. Times are those at which the test saw it, some seconds later at most.
compare_with_ledger() {
  until_is "the last rows are missing" has_told "${#ledger[@]}"
  printf '%s\n' "${ledger[@]}" >/run/ledger
  sqlite3 -separator ' ' $database "SELECT action, vpn_type, username, source_ip,
    ifnull(nullif(vpn_ip, ''), '-'), ifnull(nullif(outgoing, ''), '-'), uptime, tx_total, rx_total, time
    FROM conn_server_log ORDER BY id" >/run/rows
  paste -d ' ' /run/ledger /run/rows | awk '
    { wrong = NF != 20 || $10 - $20 > 9 || $20 - $10 > 1
      for (i = 1; i <= 9; ++i) if ($i != $(i + 10)) wrong = 1
      if (wrong) print "done, and kept: " $0
      failed += wrong }
    END { exit failed != 0 }' || fail "the rows are not what was done"
  {
    awk '{ split("Fail OK out", word); print "0017", $3, $4, $5, word[$1] }' /run/ledger
    printf '%s\n' "${told_besides[@]}"
  } | sort >/run/to-tell
  awk -F'","' '{ match($0, /"message_id":"[0-9]+/); id = substr($0, RSTART + 14, 4) }
    id == "0017" { sub(/"\].*/, "", $0); n = split($0, v, /","/)
      print id, v[n - 6], v[n - 5], (v[n - 4] == " " ? "-" : v[n - 4]), (v[n] ~ /Fail/ ? "Fail" : v[n] ~ /OK/ ? "OK" : "out"); next }
    { sub(/.*"ZORV Service","/, ""); sub(/".*/, ""); print id, $0 }' $notifications | sort >/run/told
  diff /run/to-tell /run/told || fail "what was told is not what was done"
}
