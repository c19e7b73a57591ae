# Sourced by the scripts: their help, installing what they need, building, testing.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)

# --help prints the comment at the top of the script.
if [ "${1:-}" = --help ] || [ "${1:-}" = -h ]; then
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
    exit
fi

say() { printf '\n== %s\n' "$*"; }

# need PACKAGE...: installs the Debian packages that are missing
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

build_packages=(g++ cmake ninja-build libsqlite3-dev libxxhash-dev libcrypt-dev libcli11-dev libfmt-dev nlohmann-json3-dev libssl-dev)
test_packages=(binutils libgtest-dev abigail-tools groff-base python3-pytest python3-venv python3-setuptools python3-wheel mypy pkgconf)
clang_packages=(clang libclang-rt-dev)
style_packages=(clang-format clang-tidy libbenchmark-dev python3)
packaging_packages=(binutils doxygen dpkg-dev file)

# build FOLDER [CMAKE OPTION...]: configures and builds in build/FOLDER, everything or the TARGETS; on a terminal, shows
# ninja's progress
build() {
    local folder=$root/build/$1 quiet=(-- --quiet)
    shift
    [ ! -t 1 ] || quiet=()
    # A folder that version 1.0.0 configured has an empty TSM_SDK_DIR, which is refused.
    cmake -S "$root" -B "$folder" -G Ninja --log-level=WARNING -UTSM_SDK_DIR -DTSM_WERROR=ON "$@" >/dev/null
    # shellcheck disable=SC2086 # several targets
    cmake --build "$folder" --target ${TARGETS:-all} -j "$jobs" "${quiet[@]}"
}

# run_tests FOLDER [CTEST OPTION...]: runs the tests of a build, and shows those that fail; on a terminal, its progress
# too
run_tests() {
    local tests=(ctest --test-dir "$root/build/$1" --output-on-failure -j "$jobs" --no-tests=error "${@:2}")
    if [ -t 1 ]; then
        "${tests[@]}" --progress
    else
        "${tests[@]}" | grep -vE '^ *[0-9]+/[0-9]+ Test .* Passed|^ +Start '
    fi
}

# copy_sources DIR: makes DIR, and copies the files that belong to the project into it
copy_sources() {
    mkdir -p "$1"
    if [ -e "$root/.git" ] && command -v git >/dev/null; then # the folder may be another user's
        git -C "$root" -c safe.directory="$root" ls-files -z | while IFS= read -r -d '' file; do
            [ ! -e "$root/$file" ] || printf '%s\0' "$file"
        done | tar -C "$root" --null -T - -c
    else
        tar -C "$root" --exclude='./build*' --exclude=.git --exclude=__pycache__ -c .
    fi | tar -C "$1" --no-same-owner -x
}
