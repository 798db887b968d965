#!/usr/bin/env bash
# A program offers each function of the given archives to whoever loads it:
# exports_test.sh NM PROGRAM ARCHIVE...
set -euo pipefail
nm=$1
program=$2
shift 2

functions() { "$nm" -C --defined-only "$@" | sed -n 's/^[0-9a-f]* T //p' | sort -u; }

wanted=$(functions "$@")
grep -q '^add_conn_server_log(' <<<"$wanted"
missing=$(comm -23 <(echo "$wanted") <(functions -D "$program"))
if [[ -n $missing ]]; then
  printf 'not offered by %s:\n%s\n' "$program" "$missing"
  exit 1
fi
