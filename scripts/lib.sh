# What the scripts share. Source it; it stands in the project's root afterwards.

cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD

BUILD_PACKAGES=(g++ cmake ninja-build flex byacc libssl-dev openssl pkg-config)

# Installs those of the Debian packages named that are not installed yet.
need_packages() {
    local missing=() package as_root=()
    for package in "$@"; do
        dpkg -s "$package" 2>/dev/null | grep -q '^Status: install ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || {
            echo "missing packages, and neither root nor sudo to install them: ${missing[*]}" >&2
            return 1
        }
        as_root=(sudo)
    fi
    echo "installing ${missing[*]}"
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# Configures and builds the preset; quiet when all goes well.
build_preset() {
    local log
    log=$(mktemp)
    if ! { cmake --preset "$1" && cmake --build --preset "$1"; } >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        echo "preset $1 does not build" >&2
        return 1
    fi
    rm -f "$log"
}
