#!/usr/bin/env bash
# What zorv-dev installs is enough for a program of another project, built with its compiler's C++17:
# installed_test.sh BUILD_FOLDER
set -euo pipefail
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
cmake --install "$1" --component zorv-dev --prefix "$root" >/dev/null
PKG_CONFIG_PATH=$(dirname "$(find "$root" -name zorv-client.pc)")
export PKG_CONFIG_PATH ZORV_ROOT=$root

for header in "$root"/include/zorv/*.h; do
  echo "#include \"$header\"" | g++ -std=c++17 -Wall -Werror -fsyntax-only -x c++ -
done

# runs MODULE: a program from standard input, built with that module's flags and nothing else
runs() {
  # shellcheck disable=SC2046
  g++ -std=c++17 -Wall -Werror -x c++ - -o "$root/$1" -x none \
    $(pkg-config --define-variable=prefix="$root" --cflags --libs "$1")
  "$root/$1"
}

mkdir -p "$root/etc/config" "$root/var/run"
runs zorv-options <<<'#include <global_options.h>
#include <nc_msg_db.h>
JsonValue value;
int main() { return zorv::GlobalConfig().load("global", value); }'
runs zorv-client <<<'#include <zorv_api_db.h>
#include <zorv_api_mobile.h>
zorv_mobile_gen_uuid_data_set request;
zorv_mobile_gen_uuid_data_get* answer;
int main() { return zorv_mobile_gen_zorv_uuid(&request, &answer) + clean_conn_server_log() != 2; }
' # nobody listens below that root
