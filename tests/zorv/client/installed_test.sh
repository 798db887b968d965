#!/usr/bin/env bash
# What zorv-dev installs is enough for a program of another project, built with its compiler's C++17:
# installed_test.sh BUILD_FOLDER
set -euo pipefail
build=$1
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
cmake --install "$build" --component zorv-dev --prefix "$root" >/dev/null
PKG_CONFIG_PATH=$(dirname "$(find "$root" -name zorv-client.pc)")
export PKG_CONFIG_PATH

# builds MODULE: a program from standard input, with that module's flags and nothing else
builds() {
  # shellcheck disable=SC2046
  g++ -std=c++17 -Wall -Werror -x c++ - -o "$root/$1" -x none \
    $(pkg-config --define-variable=prefix="$root" --cflags --libs "$1")
}

for header in "$root"/include/zorv/*.h; do
  echo "#include <$(basename "$header")>" |
    g++ -std=c++17 -Wall -Werror -fsyntax-only -I "$root/include/zorv" -x c++ -
done

builds zorv-client <<'PROGRAM'
#include <zorv_api_db.h>
#include <zorv_api_mobile.h>
int main() {
  zorv_mobile_gen_uuid_data_set request{};
  zorv_mobile_gen_uuid_data_get uuid{};
  auto* answer = &uuid;
  char name[] = "a";
  return zorv_mobile_gen_zorv_uuid(&request, &answer) + check_privilege_user_block(name);
}
PROGRAM
builds zorv-options <<'PROGRAM'
#include <global_options.h>
#include <nc_msg_db.h>
int main() {
  JsonValue value;
  return zorv::GlobalConfig().load("global", value);
}
PROGRAM

mkdir -p "$root/etc/config" "$root/var/run"
export ZORV_ROOT=$root
"$root/zorv-options"
status=0
"$root/zorv-client" || status=$?
[ "$status" -eq 2 ] # nobody listens below that root
