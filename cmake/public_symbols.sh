#!/bin/bash
# Writes the version script of a shared library: what its public headers declare is visible, all else is not.
#   public_symbols.sh SOURCE-ROOT COMPILER NM ARCHIVE HEADERS...
# Headers are read as the compiler reads them, since macros make the names of whole families of functions.
set -euo pipefail
root=$1 compiler=$2 nm=$3 archive=$4
shift 4

words=$(for header in "$@"; do echo "#include \"$header\""; done |
    "$compiler" -std=c++20 -D_GNU_SOURCE -I"$root" -E -P -x c++ - |
    grep -oE '[A-Za-z_][A-Za-z0-9_]*' | LC_ALL=C sort -u)
defined=$("$nm" -g --defined-only --format=posix "$archive" | awk 'NF > 2 { print $1 }' | LC_ALL=C sort -u)
public=$(LC_ALL=C comm -12 <(echo "$words") <(echo "$defined"))
[ -n "$public" ] || { echo "$archive defines nothing of what its headers declare" >&2; exit 1; }
printf '{\n    global:\n'
sed 's/.*/        &;/' <<<"$public"
printf '    local: *;\n};\n'
