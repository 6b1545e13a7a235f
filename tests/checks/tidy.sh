#!/bin/bash
# clang-tidy with the tree's .clang-tidy, over every source that is part of a program or library.
set -euo pipefail
cd "$1"
build=$2

mapfile -t sources < <(find platform usr.sbin lib pfe-shared tools -name '*.cpp' 2>/dev/null | sort)
# Prints only what it finds: the counts of suppressed warnings go to standard error.
printf '%s\0' "${sources[@]}" | xargs -0 -P "$(nproc)" -n 4 clang-tidy -quiet -p "$build" 2>/dev/null
