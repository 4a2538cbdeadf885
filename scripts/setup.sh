# shellcheck shell=bash
# What the scripts share; sourced, with bash. Sets root (the project's folder) and build (the
# release build's folder). Everything here reports to standard error.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/release

# What building the library and miradump needs, what mira and the SQLite module need besides, and
# what the tests add.
build_packages=(g++ cmake make)
tool_packages=(pkg-config libcli11-dev libsqlite3-dev libuchardet-dev libutf8proc-dev libfmt-dev libzip-dev)
test_packages=(libgtest-dev sqlite3 python3)
# Servers that tests start themselves; without them these are skipped.
server_packages=(postgresql mariadb-server-core mariadb-client-core)

# Whether a Debian package, or the tool it is wanted for, is there.
present() {
    case $1 in
        g++) command -v "${CXX:-g++}" ;;
        clang | cmake | make | clang-format | clang-tidy | npm | pkg-config | python3 | sqlite3)
            command -v "$1"
            ;;
        *) dpkg-query -W -f '${Status}' "$1" 2>/dev/null | grep -q 'ok installed' ;;
    esac >/dev/null
}

# Prints those of the packages that are missing, one a line.
missing_of() {
    local package
    for package in "$@"; do
        present "$package" || echo "$package"
    done
}

# What somebody who may not install has to run: everything that scripts/dump and scripts/test need,
# so that the command is needed once.
advise() {
    local all=() sudo="sudo "
    mapfile -t all < <(missing_of "${build_packages[@]}" "${tool_packages[@]}" "${test_packages[@]}" "$@" |
        sort -u)
    if command -v sudo >/dev/null; then
        echo "Some packages are missing. Run this, then try again:"
    else
        sudo=
        echo "Some packages are missing. Run this as root, then try again:"
    fi
    echo "    ${sudo}apt-get update && ${sudo}apt-get install -y ${all[*]}"
} >&2

# require PACKAGE...: installs those that are missing, as root or with a sudo that asks nothing.
require() {
    local missing=() as_root=()
    mapfile -t missing < <(missing_of "$@")
    [ ${#missing[@]} -eq 0 ] && return 0

    if ! command -v apt-get >/dev/null; then
        echo "Missing, and there is no apt-get to install them: ${missing[*]}" >&2
        return 1
    fi
    if [ "$(id -u)" -ne 0 ]; then
        if ! sudo -n true 2>/dev/null; then
            advise "${missing[@]}"
            return 1
        fi
        as_root=(sudo -n)
    fi
    echo "Installing ${missing[*]}" >&2
    {
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq ||
            echo "The package lists could not be renewed; trying with those there are."
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y -qq --no-install-recommends "${missing[@]}"
    } </dev/null >&2
}

processors() { nproc 2>/dev/null || echo 2; }

# build_release TARGET [CMAKE_OPTION...]: configures and builds; only what has changed. MIRA_OPTIONS
# may hold further options for CMake.
build_release() {
    local target=$1
    shift
    {
        # shellcheck disable=SC2086
        cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_TARGET_MESSAGES=OFF "$@" \
            ${MIRA_OPTIONS:-} >/dev/null &&
            cmake --build "$build" --target "$target" -j "$(processors)"
    } </dev/null >&2
}
