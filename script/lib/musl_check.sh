#!/bin/bash
# Compiles every source of the library, without making code, against the C library and the C++ library of
# OpenHarmony's kind: musl and libc++, by clang, for the platform's own target.
#
#   script/lib/musl_check.sh [CLANG++]      default clang++-14
#
# Finds what builds here and would not build with the platform's SDK: functions that only glibc has, headers that
# only libstdc++ brings along, code that depends on a signed char. Packages: clang-14, libc++-14-dev, musl-dev.
set -euo pipefail
cd "$(dirname "$0")/../.."

compiler=${1:-clang++-14}
command -v "$compiler" >/dev/null || { echo "musl_check: $compiler is not installed (package clang-14)" >&2; exit 2; }
libcxx=$(dirname "$(readlink -f "$(command -v "$compiler")")")/../include/c++/v1
musl=/usr/include/$(uname -m)-linux-musl
[ -f "$libcxx/vector" ] || { echo "musl_check: no libc++ headers in $libcxx (package libc++-14-dev)" >&2; exit 2; }
[ -f "$musl/stdio.h" ] || { echo "musl_check: no musl headers in $musl (package musl-dev)" >&2; exit 2; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Seen by every file before its own first line.
cat >"$work/no_glibc.h" <<'EOF'
#include <features.h>
#ifdef __GLIBC__
#error "a glibc header was found where only musl's should be"
#endif
EOF

flags=(-nostdinc++ -nostdlibinc -isystem "$libcxx" -isystem "$musl" -D_LIBCPP_HAS_MUSL_LIBC -D__MUSL__
  -funsigned-char -fPIC -Wall -Wextra -Wpedantic -Wconversion -Werror -Werror=format-security
  -include "$work/no_glibc.h" -Iinclude -I. -isystem "$work/include" -DKESTRUN_OHOS -fsyntax-only)

# The platform's own triple, and the plain musl one of this machine: they differ in va_list, wchar_t and char.
targets=(aarch64-linux-ohos "$(uname -m)-linux-musl")

sources=$(find base format storage block engine store record napi bindings/c bindings/node/src -name '*.cc' | sort)

# The platform's Node-API header has the declarations of Node's, under another name.
node=$(readlink -f "$(command -v node)")
for node_api in "$(dirname "$node")/../include/node/node_api.h" /usr/include/node/node_api.h; do
  [ ! -e "$node_api" ] || break
done
[ -e "$node_api" ] || { echo "musl_check: no node_api.h (it comes with Node.js or with libnode-dev)" >&2; exit 2; }
mkdir -p "$work/include/napi"
cp "$(dirname "$node_api")"/{node_api,node_api_types,js_native_api,js_native_api_types}.h "$work/include/napi/"
echo '#include "node_api.h"' >"$work/include/napi/native_api.h"

for header in include/kestrun/*.h; do
  echo "#include \"kestrun/$(basename "$header")\"" >"$work/header_$(basename "$header" .h).cc"
done

{
  for target in "${targets[@]}"; do
    for source in $sources; do echo "--target=$target -std=c++20 $source"; done
    # The public headers promise C++17, and the sizes of what is in them.
    for source in "$work"/header_*.cc tests/abi/layout.cc; do echo "--target=$target -std=c++17 $source"; done
  done
} >"$work/list"

if ! xargs -P "$(nproc)" -L 1 "$compiler" "${flags[@]}" <"$work/list"; then
  echo "musl_check: FAILED" >&2
  exit 1
fi
echo "musl_check: $(wc -l <"$work/list") compilations against musl and libc++ for ${targets[*]}: no error, no warning"
