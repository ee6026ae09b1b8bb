#!/bin/bash
# Makes the Debian package of a build, looks into it, unpacks it and builds a program against what comes out.
#
# Run by ctest: debian_package_test.sh SOURCE BUILD WORK, where WORK is emptied first.
set -euo pipefail
source=$1
build=$2
work=$3
. "$source/tests/install/checks.sh"

architecture=$(dpkg --print-architecture)

cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work" >cpack.log 2>&1 || { cat cpack.log; exit 1; }
package=kestrun2_${version}_$architecture.deb
expect "the file is named after package, version and architecture" test -f "$package"
field() { dpkg-deb -f "$package" "$1"; }
expect "the control file tells the same" bash -c "
  [ '$(field Package) $(field Version) $(field Architecture)' = 'kestrun2 $version $architecture' ]"
# The program brings in the packages that it needs; the library has none but the runtime.
if [ -x "$build/tools/kestrun" ]; then allowed='libc6|libgcc-s1|libstdc\+\+6|libsqlite3-0'; else allowed='libc6|libgcc-s1|libstdc\+\+6'; fi
expect "the dependencies are the C++ and C runtime and, for the program, SQLite" bash -c "
  tr ',' '\n' <<<'$(field Depends)' | sed 's/^ *//; s/ .*//' | { ! grep -v -x -E '$allowed'; }"
expect "the dynamic linker learns of the library" bash -c "
  dpkg-deb --ctrl-tarfile '$package' | tar -xO ./postinst | grep -q ldconfig &&
  [ \"\$(dpkg-deb --ctrl-tarfile '$package' | tar -xO ./shlibs)\" = 'libKestrun2 $major kestrun2 (>= $version)' ] ||
  { dpkg-deb --ctrl-tarfile '$package' | tar -xO ./shlibs; false; }"

dpkg-deb -x "$package" tree
expect "library, headers, CMake package and pkg-config file lie below /usr" bash -c "
  cd tree/usr && ls include/kestrun/kestrun.h lib/libKestrun2.so.$version lib/cmake/Kestrun2/Kestrun2Config.cmake \
    lib/pkgconfig/kestrun2.pc && diff -r '$source/include/kestrun' include/kestrun"
expect "the documents and the examples are there, and their links lead to each other" bash -c "
  ls tree/usr/share/doc/kestrun2/examples/*.cc &&
  python3 '$source/tests/docs/docs_test.py' links tree/usr/share/doc/kestrun2"
expect "everything belongs to root" bash -c "! dpkg-deb -c '$package' | grep -v ' root/root '"
expect "a program builds against the package" bash -c "
  g++ -std=c++17 '$source/tests/install/outside/main.cc' -o program \
    \$(PKG_CONFIG_PATH=tree/usr/lib/pkgconfig pkg-config --cflags --libs kestrun2)"
mkdir store
expect "and runs" env LD_LIBRARY_PATH=tree/usr/lib ./program store
if [ -x "$build/tools/kestrun" ]; then
  expect "the program is in the package and runs" bash -c "
    [ \"\$(tree/usr/bin/kestrun --version)\" = \"\$('$build/tools/kestrun' --version)\" ]"
  expect "it finds the library beside itself" bash -c "
    ldd tree/usr/bin/kestrun | grep -q 'libKestrun2.*$work/tree/usr/'"
  expect "its manual page is there" test -f tree/usr/share/man/man1/kestrun.1
  expect "its completions are there" bash -c "
    cd tree/usr/share && ls bash-completion/completions/kestrun zsh/site-functions/_kestrun \
      fish/vendor_completions.d/kestrun.fish"
fi

exit $((failures > 0))
