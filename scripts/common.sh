# Shared by the scripts: what they need installed, and how they build. Sourced, not run.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)

say() { printf '\n== %s\n' "$*"; }

# Installs those of the named Debian packages that are missing.
need() {
    local missing=()
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null)" = 'install ok installed' ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    say "Installing ${missing[*]}"
    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || { echo "Run as root, or install: ${missing[*]}" >&2; exit 1; }
        sudo=(sudo)
    fi
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build_packages=(g++ cmake ninja-build libsqlite3-dev libxxhash-dev libcrypt-dev libcli11-dev libfmt-dev nlohmann-json3-dev)
test_packages=(binutils libgtest-dev abigail-tools groff-base python3-venv python3-setuptools python3-wheel mypy)

# build FOLDER [CMAKE OPTION...]: configures and builds below build/.
build() {
    local folder=$root/build/$1
    shift
    cmake -S "$root" -B "$folder" -G Ninja --log-level=WARNING "$@" >/dev/null
    cmake --build "$folder" -j "$jobs" -- --quiet
}
