#!/bin/bash
# Installs the libraries to a scratch prefix, builds the program against them as pkg-config says, and runs it.
#   installed.sh static|shared BUILD-FOLDER PROGRAM ROUTES COMPILER [FLAGS...]
set -euo pipefail
kind=$1 build=$2 program=$3 routes=$4
shift 4

prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" --component libraries >/dev/null
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name rtsock_kernels.pc)")
read -ra cflags < <(pkg-config --cflags rtsock_kernels)
read -ra libs < <(pkg-config --libs rtsock_kernels)
[ "$kind" = shared ] || libs=(-Wl,-Bstatic "${libs[@]}" -Wl,-Bdynamic)
"$@" -std=c++20 "${cflags[@]}" "$program" "${libs[@]}" -o "$prefix/routes"

needs=$(readelf -d "$prefix/routes" | grep -c 'NEEDED.*librtsock.*[.]so[.]1' || true)
[ "$kind" = static ] && wanted=0 || wanted=2
[ "$needs" = "$wanted" ] || { echo "a $kind program needs $needs shared libraries"; exit 1; }
# A function between files of the library is nobody else's.
if nm -D --defined-only "$PKG_CONFIG_PATH/../librtsock.so" | grep -w rtslib_request_new; then exit 1; fi
"$prefix/routes" blue "$routes"
