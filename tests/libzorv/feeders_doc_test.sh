#!/usr/bin/env bash
# feeders_doc_test.sh SOURCE BUILD CC: each example of docs/feeders.md, the one in C as C89, records
# alice's login in the same words and stops at her block; the library exports what zorv.h declares.
set -euo pipefail
source=$1 build=$2 compiler=$3
library=$build/lib/libzorv.so.1
same() { diff -u --label "wanted $1" --label "found $1" <(echo "$2") <(echo "$3"); }

declared=$(sed -E '/^( \*|\/\*)/d' "$source/src/libzorv/zorv.h" | grep -o 'zorv_[a-z_]*(')
exported=$(nm -D --defined-only "$library" | awk '$2 != "A" { print $3 }')
same exports "$(sort <<<"${declared//(/@@ZORV_1.0}")" "$(sort <<<"$exported")"
same sonames libzorv.so.1 "$(objdump -p "$library" | sed -nE 's/ +SONAME +//p')"

ZORV_ROOT=$(mktemp -d /tmp/zf.XXXXXX)
export ZORV_ROOT LD_LIBRARY_PATH=$build/lib PATH=$build/bin:$PATH
trap 'kill $(jobs -p); wait; rm -rf "$ZORV_ROOT"' EXIT
cd "$ZORV_ROOT"
mkdir -p etc/config/zorv var/log/network var/lock var/run
echo '{"global": {"enable": true, "limit": 1, "time": 5}}' >etc/config/vpn_block.conf
platformd >platformd.out & zorvd >zorvd.out &
cp "$build"/examples/login.* .
"$compiler" -std=c89 -pedantic -Wall -Werror login.c -o login -I"$source/src/libzorv" -L"$build/lib" -lzorv
for _ in $(seq 400); do zorvctl block list && zorvctl block policy && break; sleep 0.05; done >/dev/null 2>&1

for run in ./login "python3 login.py" "sh login.sh"; do same outputs "" "$($run 2>&1)"; done
row=alice,4,0,192.0.2.7,,0,0,2
same rows "$(printf '%s\n' $row $row $row)" "$(zorvctl server-log list -q -o csv | tr -d '\r' | cut -d, -f2-4,7,8,11,12,14)"
zorvctl block fail alice
for run in ./login "python3 login.py" "sh login.sh"; do
  status=0
  said=$($run 2>&1) || status=$?
  same "ends of $run" 4 "$status$said"
done
