#!/bin/bash
# Installs a build into a scratch prefix and builds an outside project against it in every way that is
# promised: find_package, pkg-config and add_subdirectory, with g++ and clang++, in C++17 and C++20.
#
# Run by ctest: install_test.sh SOURCE BUILD WORK, where WORK is emptied first.
set -euo pipefail
source=$1
build=$2
work=$3
. "$source/tests/install/checks.sh"

works() {  # works PROGRAM...: every program runs and says so
  local program
  for program in "$@"; do
    rm -rf store
    mkdir store
    "$program" store
  done
}

# Installed in one place and moved to another: nothing may remember the first one.
cmake --install "$build" --prefix "$work/first" >install.log
mv first prefix
prefix=$work/prefix
library_directory=$(dirname "$(find "$prefix" -name libKestrun2.so)")

expect "no installed text file names the source, the build or the first prefix" \
  bash -c "! grep -rlI -e '$source' -e '$build' -e '$work/first' '$prefix'"
expect "every public header is installed and no other" \
  diff -r -x '*.cmake' "$source/include/kestrun" "$prefix/include/kestrun"
expect "libKestrun2.so leads to the file by way of its SONAME" bash -c "
  [ \$(readlink '$library_directory/libKestrun2.so') = libKestrun2.so.$major ] &&
  [ \$(readlink '$library_directory/libKestrun2.so.$major') = libKestrun2.so.$version ] &&
  [ ! -L '$library_directory/libKestrun2.so.$version' ] &&
  readelf -d '$library_directory/libKestrun2.so' | grep -q 'SONAME.*\[libKestrun2\.so\.$major\]'"
expect "the library needs nothing but the C++ and C runtime" bash -c "
  readelf -d '$library_directory/libKestrun2.so' | grep NEEDED |
    { ! grep -v -E '\[(libstdc\+\+\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libm\.so\.6|ld-linux[^]]*)\]'; }"

compilers=(g++ clang++)
for compiler in "${compilers[@]}"; do
  cmake_project() {  # cmake_project DIRECTORY ARGUMENTS...: configures and builds the outside project
    local directory=$1
    shift
    cmake -S "$source/tests/install/outside" -B "$directory" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
      -DCMAKE_BUILD_TYPE=Release "$@" && cmake --build "$directory"
  }

  expect "$compiler: find_package, build" cmake_project "found-$compiler" -DCMAKE_PREFIX_PATH="$prefix"
  expect "$compiler: find_package, run" works "./found-$compiler/outside17" "./found-$compiler/outside20"

  for standard in 17 20; do
    program=pkgconfig-$compiler-$standard
    expect "$compiler: pkg-config, C++$standard" env PKG_CONFIG_PATH="$library_directory/pkgconfig" bash -c "
      $compiler -std=c++$standard -Wall -Wextra -Wpedantic -Werror \
        '$source/tests/install/outside/main.cc' -o $program \$(pkg-config --cflags --libs kestrun2) \
        -Wl,-rpath,'$library_directory'"
    expect "$compiler: pkg-config, C++$standard, run" works "./$program"
  done

  for header in "$prefix"/include/kestrun/*.h; do
    name=kestrun/$(basename "$header")
    expect "$compiler: $name compiles alone, in C++17 and C++20" bash -c "
      for standard in 17 20; do
        echo '#include <$name>' | $compiler -std=c++\$standard -Wall -Wextra -Wpedantic -Wconversion -Wshadow \
          -Werror -I'$prefix/include' -fsyntax-only -xc++ - || exit 1
      done"
  done

  # The library itself is built once per compiler, for both standards of the user;
  # joined files take half the time.
  quick=(-DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=8)
  if command -v ccache >/dev/null; then quick+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
  expect "$compiler: add_subdirectory, build" cmake_project "added-$compiler" -DKESTRUN_SOURCE="$source" "${quick[@]}"
  expect "$compiler: add_subdirectory, run" works "./added-$compiler/outside17" "./added-$compiler/outside20"
done

configure() { cmake -S "$source/tests/install/outside" -B "$work/wanted-$1" -DCMAKE_PREFIX_PATH="$prefix" -DKESTRUN_WANTED="$1"; }
refuse() { ! configure "$1" >refused.log && ! grep -q 'Build files have been written' refused.log; }
expect "find_package takes the version that is installed" configure "$version"
expect "find_package takes an earlier request of the same major version" configure "$major.0"
expect "find_package refuses the next major version" refuse "$((major + 1)).0"
expect "find_package refuses the previous major version" refuse "$((major - 1)).0"
expect "pkg-config tells the version" bash -c "
  [ \$(PKG_CONFIG_PATH='$library_directory/pkgconfig' pkg-config --modversion kestrun2) = $version ]"

# The program and its manual, where the build has them.
if [ -e "$prefix/bin/kestrun" ]; then
  expect "the installed program finds the library beside itself" "$prefix/bin/kestrun" --version
  expect "the manual page is installed and without a flaw" bash -c "
    [ -z \"\$(groff -man -ww -z '$prefix/share/man/man1/kestrun.1' 2>&1)\" ]"
  page=$(sed 's/\\-/-/g' "$prefix/share/man/man1/kestrun.1")
  documented() {  # documented COMMAND: the page names the command and every option that its help names
    local option
    grep -q "kestrun $1 " <<<"$page" || { echo "the command $1 is missing"; return 1; }
    for option in $("$prefix/bin/kestrun" "$1" --help | grep -o -E '^  +(-[a-z], )?--[a-z-]+' | grep -o -E -- '--[a-z-]+'); do
      grep -q -E -- "$option( |$|\\\\)" <<<"$page" || { echo "the option $option of $1 is missing"; return 1; }
    done
  }
  # completed SHELL: its file is installed, is what the program writes, and is no nonsense to the shell
  completed() {
    local file
    case "$1" in
      bash) file=bash-completion/completions/kestrun ;;
      zsh) file=zsh/site-functions/_kestrun ;;
      fish) file=fish/vendor_completions.d/kestrun.fish ;;
    esac
    "$prefix/bin/kestrun" help --completions "$1" | diff - "$prefix/share/$file" || return 1
    if command -v "$1" >/dev/null; then "$1" -n "$prefix/share/$file"; fi
  }
  fish_completes() {  # what fish offers for a command line, from the installed file
    PATH="$prefix/bin:$PATH" fish --no-config -c "source '$prefix/share/fish/vendor_completions.d/kestrun.fish'; complete -C '$1'" |
      grep -q -- "^$2"
  }
  zsh_knows() {  # compinit finds the installed file by its first line
    zsh -f -c "fpath=('$prefix/share/zsh/site-functions' \$fpath); autoload -Uz compinit; compinit -u -D; [[ \${_comps[kestrun]} == _kestrun ]]"
  }
  commands=$("$prefix/bin/kestrun" --help | awk '/^Commands:/ { on = 1; next } /^$/ { on = 0 } on { print $1 }')
  expect "the program has commands" test "$(wc -w <<<"$commands")" -ge 24
  for shell in bash zsh fish; do
    expect "the completions for $shell are those of the program" completed "$shell"
  done
  if command -v fish >/dev/null; then
    expect "fish completes a command" fish_completes "kestrun sc" scan
    expect "fish completes an option of a command" fish_completes "kestrun scan --pre" --prefix
  fi
  if command -v zsh >/dev/null; then expect "zsh finds the completions" zsh_knows; fi
  for command in $commands; do expect "the manual page has the command $command and its options" documented "$command"; done
fi

exit $((failures > 0))
