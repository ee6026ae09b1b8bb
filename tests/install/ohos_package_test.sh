#!/bin/bash
# script/package-ohos and the OpenHarmony toolchain file, against a stand-in for the SDK: the same directories
# and variables, with the cross compiler of this machine inside. Run by ctest with the source tree and a
# directory to work in; the directory is emptied first.
set -euo pipefail
source=$1
work=$2
. "$source/tests/install/checks.sh"

refused_with() {  # refused_with TEXT COMMAND...: the command fails with status 1 and says TEXT
  local text=$1 output status=0
  shift
  output=$("$@" 2>&1) || status=$?
  [ "$status" = 1 ] && grep -qF -- "$text" <<<"$output"
}

expect "without an SDK the variable to set is named" \
  refused_with "OHOS_NDK_HOME is not set" env -u OHOS_NDK_HOME "$source/script/package-ohos" "$work/none"
mkdir empty
expect "a directory that is no SDK is refused with a list of what is missing" \
  refused_with "$work/empty/build/cmake/ohos.toolchain.cmake" \
  env OHOS_NDK_HOME="$work/empty" "$source/script/package-ohos" "$work/none"
expect "nothing is made where the SDK is missing" test ! -e "$work/none"
expect "the toolchain file refuses too and names the variable" \
  bash -c "! env -u OHOS_NDK_HOME cmake -S '$source' -B '$work/no-sdk' \
    -DCMAKE_TOOLCHAIN_FILE='$source/cmake/toolchains/ohos-arm64.cmake' >no-sdk.log 2>&1 &&
    grep -q 'Set OHOS_NDK_HOME' no-sdk.log"

# The stand-in.
ndk=$work/sdk/native
mkdir -p "$ndk/build/cmake" "$ndk/llvm/bin" "$ndk/sysroot/usr/lib/aarch64-linux-ohos"
# The host's functions are those of Node.js, under another header.
node_headers=$(dirname "$(readlink -f "$(command -v node)")")/../include/node
[ -e "$node_headers/node_api.h" ] || node_headers=/usr/include/node
mkdir -p "$ndk/sysroot/usr/include/napi"
cp "$node_headers"/{node_api,node_api_types,js_native_api,js_native_api_types}.h "$ndk/sysroot/usr/include/napi/"
echo '#include "node_api.h"' >"$ndk/sysroot/usr/include/napi/native_api.h"
grep -ohE '\bn(api|ode_api)_[a-z0-9_]+\(' "$node_headers"/{node_api,js_native_api}.h | sort -u |
  sed 's/(/(void) { }/; s/^/void /' |
  aarch64-linux-gnu-gcc -shared -fPIC -xc - -Wl,-soname,libace_napi.z.so \
    -o "$ndk/sysroot/usr/lib/aarch64-linux-ohos/libace_napi.z.so"
for tool in readelf strip; do ln -s "$(command -v aarch64-linux-gnu-$tool)" "$ndk/llvm/bin/llvm-$tool"; done
cat >"$ndk/build/cmake/ohos.toolchain.cmake" <<'EOF'
if(NOT OHOS_ARCH STREQUAL "arm64-v8a" OR NOT OHOS_STL STREQUAL "c++_shared" OR NOT OHOS_PLATFORM STREQUAL "OHOS")
  message(FATAL_ERROR "asked for ${OHOS_ARCH}, ${OHOS_STL}, ${OHOS_PLATFORM}")
endif()
set(OHOS TRUE)
set(CMAKE_SYSTEM_NAME OHOS)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
include_directories(SYSTEM ${CMAKE_CURRENT_LIST_DIR}/../../sysroot/usr/include)
set(CMAKE_MODULE_LINKER_FLAGS_INIT
  "-Wl,--no-undefined -Wl,--as-needed -L${CMAKE_CURRENT_LIST_DIR}/../../sysroot/usr/lib/aarch64-linux-ohos")
set(CMAKE_SHARED_LINKER_FLAGS_INIT
  "-Wl,--no-undefined -Wl,--as-needed -L${CMAKE_CURRENT_LIST_DIR}/../../sysroot/usr/lib/aarch64-linux-ohos")
EOF

# The directory above `native` is taken as well.
OHOS_NDK_HOME=$work/sdk "$source/script/package-ohos" "$work/out" >package.log 2>&1 || { cat package.log; exit 1; }
expect "CMake knows the system" bash -c "! grep -q 'System is unknown to cmake' package.log"

package=$work/out/kestrun2
expect "the package has the documented files and no others" diff - <(cd "$package" && find . -type f | sort) <<EOF
$( (cd "$source/packaging/ohos" && find . -type f ! -name .gitignore
    cd "$source" && find include -type f -printf './%p\n'
    echo ./libs/arm64-v8a/libKestrun2.so
    echo ./libs/arm64-v8a/libkestrunstore.so) | sort)
EOF
expect "the archive holds the same" diff <(cd "$work/out" && find kestrun2 -type f | sort) \
  <(tar -tzf "$work/out"/kestrun2-*-ohos-arm64.tar.gz | grep -v '/$' | sort)

expect "the JSON files are sound and name the version and each other" node - "$package" "$version" <<'EOF'
const fs = require('node:fs');
const path = require('node:path');
const assert = require('node:assert/strict');
const [, , root, version] = process.argv;
const read = (file) => JSON.parse(fs.readFileSync(path.join(root, file), 'utf8'));
const main = read('oh-package.json5');
assert.equal(main.name, 'kestrun2');
assert.equal(main.version, version);
assert.ok(fs.existsSync(path.join(root, main.main)));
assert.deepEqual(Object.keys(main.dependencies), ['libKestrun2.so', 'libkestrunstore.so']);
for (const [library, where] of Object.entries(main.dependencies)) {
  const types = read(path.join(where.replace(/^file:/, ''), 'oh-package.json5'));
  assert.equal(types.name, library);
  assert.equal(types.version, version);
  assert.ok(fs.existsSync(path.join(root, where.replace(/^file:/, ''), types.types)));
  assert.ok(fs.existsSync(path.join(root, 'libs/arm64-v8a', library)));
}
assert.equal(read('src/main/module.json5').module.type, 'har');
assert.equal(read('src/main/module.json5').module.name, main.name);
assert.ok(fs.existsSync(path.join(root, read('build-profile.json5').buildOption.nativeLib.headerPath, 'kestrun')));
assert.match(fs.readFileSync(path.join(root, 'CHANGELOG.md'), 'utf8'), new RegExp(`^## ${version}$`, 'm'));
EOF

library=$package/libs/arm64-v8a/libKestrun2.so
expect "the library is one file, for 64-bit Arm" bash -c "[ ! -L '$library' ] && readelf -h '$library' | grep -q 'Machine:.*AArch64'"
expect "it is called libKestrun2.so, without a version" bash -c "readelf -d '$library' | grep -q 'SONAME.*\[libKestrun2\.so\]'"
expect "it brings the host's Node-API library along" bash -c "readelf -d '$library' | grep -q 'NEEDED.*libace_napi\.z\.so'"
expect "its segments load with pages of up to 64 KB" \
  bash -c "[ \"\$(readelf -lW '$library' | awk '\$1 == \"LOAD\" { print \$NF }' | sort -u)\" = 0x10000 ]"

# The host finds a module by its file's name, and by nothing that a second module of the process could have.
module=$package/libs/arm64-v8a/libkestrunstore.so
expect "the module of Store is called by its file's name and registers as that" bash -c "
  readelf -d '$module' | grep -q 'SONAME.*\[libkestrunstore\.so\]' && strings '$module' | grep -qx kestrunstore"
expect "it needs the library, the host and the C++ and C runtime" bash -c "
  readelf -d '$module' | grep -q 'NEEDED.*\[libKestrun2\.so\]' &&
  readelf -d '$module' | grep -q 'NEEDED.*\[libace_napi\.z\.so\]' &&
  readelf -d '$module' | grep NEEDED |
    { ! grep -v -E '\[(libKestrun2\.so|libace_napi\.z\.so|libstdc\+\+\.so\.6|libgcc_s\.so\.1|libc\.so\.6|ld-linux[^]]*)\]'; }"
expect "its segments load with pages of up to 64 KB" \
  bash -c "[ \"\$(readelf -lW '$module' | awk '\$1 == \"LOAD\" { print \$NF }' | sort -u)\" = 0x10000 ]"
expect "Index.ets exports add and Store" bash -c "
  grep -q '{ add } from .libKestrun2.so.' '$package/Index.ets' && grep -q 'Store.*from .*Store' '$package/Index.ets'"

# What an app's native module does with the package.
mkdir app
echo 'int main() { return Kestrun::Version()[0] == 0; }' | cat <(echo '#include <kestrun/kestrun.h>') - >app/main.cc
cat >app/CMakeLists.txt <<EOF
cmake_minimum_required(VERSION 3.16)
project(app LANGUAGES CXX)
include($package/kestrun2.cmake)
add_executable(app main.cc)
target_link_libraries(app PRIVATE Kestrun2::Kestrun2)
target_link_options(app PRIVATE -Wl,-rpath-link,$ndk/sysroot/usr/lib/aarch64-linux-ohos)
EOF
app() {
  cmake -S app -B "app/$1" -DOHOS_ARCH="$1" -DCMAKE_CXX_COMPILER=aarch64-linux-gnu-g++ >"app/$1.log" 2>&1 &&
    cmake --build "app/$1" >>"app/$1.log" 2>&1
}
expect "an app's CMake project builds against it" app arm64-v8a
expect "another architecture is refused by name" bash -c "! $(declare -f app); ! app x86_64 && grep -q 'OHOS_ARCH \"x86_64\"' app/x86_64.log"

exit $((failures > 0))
