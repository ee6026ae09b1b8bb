#!/bin/bash
# Runs the tests on what an OpenHarmony device has: 64-bit Arm, musl, and the libc++ of the SDK's own LLVM series with
# the SDK's inline namespace, all under emulation. The nearest thing to a device that needs neither one nor an SDK.
#
#   script/lib/musl_run.sh [CTEST ARGUMENT...]
#
# The first run makes the system to run on below build/musl: musl for arm64 from the distribution, libc++ built from
# the distribution's source of LLVM 15. It downloads 170 MB and takes 2 to 3 minutes; later runs find it there.
# KESTRUN_EMULATED_PAGE_SIZE=16384 runs the tests as on a kernel with pages of that size.
# Packages: clang-15 lld-15 qemu-user-static g++-aarch64-linux-gnu googletest ninja-build cmake xz-utils.
set -euo pipefail
cd "$(dirname "$0")/../.."
work=$PWD/build/musl
sysroot=$work/sysroot
for tool in clang++-15 ld.lld-15 qemu-aarch64-static aarch64-linux-gnu-g++; do
  command -v $tool >/dev/null || { echo "musl_run: $tool is not installed; the script names the packages" >&2; exit 2; }
done

log() { echo "musl_run: $*"; }

fetch() {
  # The machine's own package lists and its own architectures stay as they are.
  mkdir -p "$work"/apt/{lists,cache/archives}/partial "$work/apt/parts" "$work/download"
  sed 's/^Types: deb$/Types: deb deb-src/' /etc/apt/sources.list.d/debian.sources >"$work/apt/parts/debian.sources"
  local apt=(apt-get -qq -o APT::Sandbox::User=root -o APT::Architectures::=amd64 -o APT::Architectures::=arm64
    -o Dir::State::lists="$work/apt/lists" -o Dir::Cache="$work/apt/cache"
    -o Dir::Etc::sourceparts="$work/apt/parts" -o Dir::Etc::sourcelist=/dev/null)
  "${apt[@]}" update
  cd "$work/download"
  "${apt[@]}" download musl:arm64 musl-dev:arm64 linux-libc-dev:arm64
  "${apt[@]}" source --download-only llvm-toolchain-15
  cd - >/dev/null
}

# musl, the kernel's headers and the compiler's own start files, where clang looks for them.
unpack_system() {
  local root=$work/root gcc
  rm -rf "$root" "$sysroot.new"
  for package in "$work"/download/*.deb; do dpkg -x "$package" "$root"; done
  mkdir -p "$sysroot.new/usr/lib" "$sysroot.new/lib"
  cp -R "$root/usr/include/aarch64-linux-musl" "$sysroot.new/usr/include"
  cp -R "$root/usr/include/linux" "$root/usr/include/asm-generic" "$root/usr/include/aarch64-linux-gnu/asm" \
    "$sysroot.new/usr/include/"
  cp -R "$root/usr/lib/aarch64-linux-musl/." "$sysroot.new/usr/lib/"
  rm -f "$sysroot.new/usr/lib/libc.so"
  cp "$root/lib/aarch64-linux-musl/libc.so" "$sysroot.new/usr/lib/libc.so"
  ln -s ../usr/lib/libc.so "$sysroot.new/lib/ld-musl-aarch64.so.1"

  gcc=$(dirname "$(aarch64-linux-gnu-g++ -print-libgcc-file-name)")
  local start=$sysroot.new/usr/lib/gcc/aarch64-linux-gnu/12
  mkdir -p "$start"
  cp "$gcc"/crtbegin{,S,T}.o "$gcc"/crtend{,S}.o "$gcc/libgcc.a" "$start/"
  echo 'INPUT(-lunwind)' >"$start/libgcc_eh.a"
}

build_cxx_library() {
  local llvm=$work/llvm
  rm -rf "$llvm" "$work/runtimes"
  mkdir -p "$llvm"
  tar -xJf "$work"/download/llvm-toolchain-15_*.orig.tar.xz -C "$llvm" --strip-components=1 --wildcards \
    '*/libcxx' '*/libcxxabi' '*/libunwind' '*/runtimes' '*/cmake' '*/llvm/cmake' '*/llvm/utils/llvm-lit'
  cmake -G Ninja -S "$llvm/runtimes" -B "$work/runtimes" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=aarch64 \
    -DCMAKE_C_COMPILER=clang-15 -DCMAKE_CXX_COMPILER=clang++-15 -DCMAKE_ASM_COMPILER=clang-15 \
    -DCMAKE_C_COMPILER_TARGET=aarch64-linux-musl -DCMAKE_CXX_COMPILER_TARGET=aarch64-linux-musl \
    -DCMAKE_ASM_COMPILER_TARGET=aarch64-linux-musl \
    -DCMAKE_SYSROOT="$sysroot.new" -DCMAKE_TRY_COMPILE_TARGET_TYPE=STATIC_LIBRARY \
    -DCMAKE_C_FLAGS=-mno-outline-atomics -DCMAKE_CXX_FLAGS="-nostdinc++ -mno-outline-atomics" \
    -DLLVM_ENABLE_RUNTIMES="libunwind;libcxxabi;libcxx" -DLIBCXX_HAS_MUSL_LIBC=ON -DLIBCXX_ABI_NAMESPACE=__n1 \
    -DLIBCXX_CXX_ABI=libcxxabi -DLIBCXX_ENABLE_SHARED=OFF -DLIBCXXABI_ENABLE_SHARED=OFF \
    -DLIBUNWIND_ENABLE_SHARED=OFF -DLIBCXX_ENABLE_STATIC_ABI_LIBRARY=ON -DLIBCXXABI_USE_LLVM_UNWINDER=ON \
    -DLIBCXXABI_HAS_CXA_THREAD_ATEXIT_IMPL=OFF -DLIBCXX_INCLUDE_BENCHMARKS=OFF -DLIBCXX_INCLUDE_TESTS=OFF \
    -DLIBCXXABI_INCLUDE_TESTS=OFF -DLIBUNWIND_INCLUDE_TESTS=OFF -DCMAKE_POSITION_INDEPENDENT_CODE=ON \
    -DCMAKE_INSTALL_PREFIX="$sysroot.new/usr"
  ninja -C "$work/runtimes" install-cxx install-cxxabi install-unwind
  # On a device the C++ library is a shared one that the app brings along.
  clang++-15 --target=aarch64-linux-musl --sysroot="$sysroot.new" -fuse-ld=lld -static-libgcc -shared -nostdlib++ \
    -Wl,-z,defs,-soname,libc++_shared.so,--whole-archive "$sysroot.new/usr/lib/libc++.a" -Wl,--no-whole-archive \
    -o "$sysroot.new/usr/lib/libc++_shared.so"
}

if [ ! -e "$sysroot" ]; then
  mkdir -p "$work"
  log "making the system to run on; build/musl/setup.log tells how it goes"
  (set -e; fetch; unpack_system; build_cxx_library) >"$work/setup.log" 2>&1 || { tail -40 "$work/setup.log"; exit 1; }
  mv "$sysroot.new" "$sysroot"
  rm -rf "$work/llvm" "$work/runtimes" "$work/root" "$work/download" "$work/apt"
fi

started=$SECONDS
cmake --preset arm64 -B "$work/tests" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/aarch64-linux-musl.cmake" \
  -DKESTRUN_MUSL_SYSROOT="$sysroot" -DKESTRUN_EMULATED_PAGE_SIZE="${KESTRUN_EMULATED_PAGE_SIZE:-}" >"$work/tests.log" 2>&1 &&
  cmake --build "$work/tests" >>"$work/tests.log" 2>&1 || { tail -60 "$work/tests.log"; exit 1; }
log "built in $((SECONDS - started)) s"

# Left out: the sweeps, whose programs are killed at moments that an emulator moves, and a test that starts its own
# program anew, which an emulator does not.
ctest --test-dir "$work/tests" --output-on-failure -j "$(nproc)" -LE sweep -E '^record[.]RecordCapacityDeathTest' "$@"
