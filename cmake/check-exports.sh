#!/usr/bin/env bash
# Run by CTest: the dynamic symbols that a library defines, demangled, sorted and without duplicates
# (a constructor's or destructor's variants demangle alike), must equal a checked-in list.
# Usage: check-exports.sh LIBRARY EXPECTED_LIST
#
# A new export, wanted or not, fails here until the list is updated. Check that the name belongs to
# the API (ORVEX_API / ORVEX_C_API, or the type information of an exported class; a new C export is
# also listed in cmake/orvexScript.map), then regenerate the list from a build and review the diff:
#   bash cmake/check-exports.sh build/bin/liborvexScript.so cmake/exports.txt --update
set -euo pipefail
library="$1" expected="$2"
actual=$(nm -D --defined-only "$library" | cut -d' ' -f3- | c++filt | LC_ALL=C sort -u)
if [ "${3:-}" = "--update" ]; then
  printf '%s\n' "$actual" > "$expected"
  echo "wrote $(wc -l < "$expected") exports to $expected"
  exit 0
fi
if ! diff_out=$(diff <(LC_ALL=C sort -u "$expected") <(printf '%s\n' "$actual")); then
  echo "exports of $library differ from $expected ('>' unexpected, '<' missing):"
  printf '%s\n' "$diff_out" | grep '^[<>]'
  exit 1
fi
echo "$(printf '%s\n' "$actual" | wc -l) exports, as listed in $expected"
