# shellcheck shell=bash
# Sourced by tests of servers that need a kernel this machine does not have: PPP, L2TP, XFRM.
#
# enter_guest "$0" "$@" runs the calling script once more, in a user-mode Linux guest, as root and with
# this machine's files, and ends with its status. In the guest it returns. What is written there is
# written to memory, so /etc and the rest may be changed at will.

skip() {
  echo "skipped: $1"
  exit 77
}

# require PROGRAM ...: skips where one is missing.
require() {
  local program
  PATH=$PATH:/usr/sbin:/sbin
  for program in linux.uml modprobe ip sqlite3 "$@"; do
    command -v "$program" >/dev/null || skip "$program is not installed"
  done
  [ "$(id -u)" -eq 0 ] || skip "needs root rights: the guest's root has those of whoever starts it"
}

enter_guest() {
  [ -z "${IN_GUEST:-}" ] || return 0
  local script work guest
  script=$(readlink -f "$1")
  work=$(mktemp -d "${TMPDIR:-/tmp}/zorv-guest.XXXXXX")
  printf '%q ' bash "$script" "${@:2}" >"$work/job"
  timeout --kill-after=5 "200" linux.uml rootfstype=hostfs rootflags=/ rw mem=512M quiet panic=-1 \
    umid="${work##*/}" uml_dir="$work/" init="$(readlink -f "${BASH_SOURCE[0]%/*}/init.sh")" work="$work" \
    con=null con0=null,fd:1 </dev/null >"$work/console" 2>&1 &
  guest=$!
  # shellcheck disable=SC2064
  trap "kill $guest 2>/dev/null || true; wait $guest || true; rm -rf '$work'" EXIT
  wait "$guest" || true
  cat "$work/output" 2>/dev/null || true
  [ -s "$work/status" ] || {
    echo "FAILED: the guest did not come to its end; its console:" >&2
    tail -n 20 "$work/console" >&2
    exit 1
  }
  exit "$(cat "$work/status")"
}
