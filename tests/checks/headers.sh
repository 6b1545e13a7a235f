#!/bin/bash
# Every header compiles by itself, as C++20, with nothing in front of it and only the root to find others in.
set -euo pipefail
cd "$1"
compiler=$2

bad=0
for header in $(find platform usr.sbin lib pfe-shared tools -name '*.h' 2>/dev/null | sort); do
    if ! "$compiler" -std=c++20 -Wall -Wextra -Werror -D_GNU_SOURCE -DKELD_RELEASE='"0"' -DKELD_URI_BASE='"uri:"' -I. \
        -fsyntax-only -include "$header" -x c++ /dev/null; then
        echo "$header does not compile by itself"
        bad=1
    fi
done
exit $bad
