#!/bin/bash
# Dependencies point one way. Each row: a folder, and the folders whose headers its files may include. Kernels speak the
# messages of the library, and are built behind it.
set -euo pipefail
cd "$1"

rows=(
    "platform            platform"
    "platform/rtsock/kernel  platform lib/librtsock"
    "platform/rtsock/model   platform lib/librtsock"
    "platform/rtsock/linux   platform lib/librtsock"
    "pfe-shared          pfe-shared platform"
    "lib                 lib pfe-shared platform"
    "usr.sbin/keld/beep  usr.sbin/keld/beep platform"
    "usr.sbin            usr.sbin lib pfe-shared platform"
    "tools               tools usr.sbin lib pfe-shared platform"
)

bad=0
for row in "${rows[@]}"; do
    read -r folder allowed <<<"$row"
    [ -d "$folder" ] || continue
    may=${allowed// /|}
    while IFS=: read -r file line text; do
        [[ $folder == platform && $file =~ ^platform/rtsock/(kernel|model|linux)/ ]] && continue
        header=$(sed 's/.*"\(.*\)".*/\1/' <<<"$text")
        if [[ ! $header =~ ^(${may//./\\.})/ ]]; then
            echo "$file:$line: $folder may include $allowed, not '$header'"
            bad=1
        fi
    done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' --include='*.h' --include='*.cpp' "$folder")
done
exit $bad
