#!/bin/bash
# Dependencies point one way. Each row: a folder, and the folders whose headers its files may include.
set -euo pipefail
cd "$1"

rows=(
    "platform            platform"
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
        header=$(sed 's/.*"\(.*\)".*/\1/' <<<"$text")
        if [[ ! $header =~ ^(${may//./\\.})/ ]]; then
            echo "$file:$line: $folder may include $allowed, not '$header'"
            bad=1
        fi
    done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' --include='*.h' --include='*.cpp' "$folder")
done
exit $bad
