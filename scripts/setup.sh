# shellcheck shell=bash
# What the scripts share; sourced, with bash. Sets root (the project's folder) and build (the
# release build's folder). Everything here reports to standard error.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/release

# Whether a Debian package, or the tool it is wanted for, is there.
present() {
    case $1 in
        g++) command -v "${CXX:-g++}" ;;
        clang | cmake | make | clang-format | clang-tidy | pkg-config) command -v "$1" ;;
        *) dpkg-query -W -f '${Status}' "$1" 2>/dev/null | grep -q 'ok installed' ;;
    esac >/dev/null
}

# require PACKAGE...: installs those that are missing, as root or with a sudo that asks nothing.
require() {
    local missing=() package as_root=()
    for package in "$@"; do
        present "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0

    if ! command -v apt-get >/dev/null; then
        echo "Missing, and there is no apt-get to install them: ${missing[*]}" >&2
        return 1
    fi
    if [ "$(id -u)" -ne 0 ]; then
        if ! sudo -n true 2>/dev/null; then
            echo "Some packages are missing. Run this, then try again:" >&2
            echo "    sudo apt-get install -y ${missing[*]}" >&2
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

# build_release TARGET [CMAKE_OPTION...]: configures and builds; only what has changed.
build_release() {
    local target=$1
    shift
    {
        cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_TARGET_MESSAGES=OFF "$@" \
            >/dev/null &&
            cmake --build "$build" --target "$target" -j "$(processors)"
    } </dev/null >&2
}
