#!/bin/bash
# The shared library shows the public classes and functions and nothing else.
#
#   exported_symbols_test.sh LIBRARY LIST [NM]         compares
#   exported_symbols_test.sh --print LIBRARY [NM]      prints the list of a library
#
# The list holds the names as a person reads them, the same for every architecture.
set -euo pipefail

exported() {
  # A variable argument list has another name on each architecture, a string in each standard library;
  # constructors and destructors come in variants of one name.
  "${2:-nm}" -D --defined-only --format=posix -C "$1" | sed -E \
    -e 's/ [A-Za-z] [0-9a-f]+ ?[0-9a-f]*$//' \
    -e 's/__va_list_tag\*|std::__va_list/va_list/g' \
    -e 's/std::__[a-z0-9]+::/std::/g' \
    -e 's/\[abi:cxx11\]//g' \
    -e 's/std::basic_string<char, std::char_traits<char>, std::allocator<char> ?>/std::string/g' | LC_ALL=C sort -u
}

if [ "$1" = --print ]; then
  exported "$2" "${3:-nm}"
  exit
fi

library=$1
list=$2
nm=${3:-nm}
status=0

if ! diff -u --label "expected ($list)" "$list" --label "exported" <(exported "$library" "$nm"); then
  echo "FAILED: the exported symbols are not those of the list"
  status=1
fi

# A host's functions are all that may be missing, and only weakly: see napi/node_api_abi.h.
expected_weak='napi_create_double
napi_define_properties
napi_get_cb_info
napi_get_value_double
napi_module_register
napi_typeof'
if ! diff -u --label "expected" <(echo "$expected_weak") --label "weak references" \
  <("$nm" -D --undefined-only "$library" | awk '$1 == "w" && $2 ~ /napi/ { print $2 }' | LC_ALL=C sort); then
  echo "FAILED: the weak references are not the six functions of the host"
  status=1
fi
if "$nm" -D --undefined-only "$library" | grep -E ' U .*(napi|Kestrun)'; then
  echo "FAILED: the library does not load without these"
  status=1
fi

segments=$(readelf -lW "$library" | awk '$1 == "LOAD" { print $NF }' | sort -u)
if [ "$segments" != 0x10000 ]; then
  echo "FAILED: the segments are aligned to $segments; with pages of 64 KB it takes 0x10000"
  status=1
fi
exit $status
