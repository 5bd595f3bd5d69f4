# Shell functions that run.sh, test.sh and the scripts in tools/ share. Sourced by bash from the project's root.
# shellcheck shell=bash

# say TEXT...: one line of progress on standard error, so that standard output stays the tool's own.
say() { printf '== %s\n' "$*" >&2; }

# die TEXT...: one clear line, exit status 1.
die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# debian_release: the code name of this system's Debian release; ends the script on another system.
debian_release() {
  local release
  # shellcheck disable=SC1091  # the system's own file
  release=$(. /etc/os-release 2>/dev/null && [ "${ID:-}" = debian ] && printf '%s' "${VERSION_CODENAME:-}") || true
  case $release in
    bookworm | trixie) printf '%s\n' "$release" ;;
    *) die "needs Debian 12 (bookworm) or Debian 13 (trixie); /etc/os-release names neither" ;;
  esac
}

# list_packages FILE RELEASE: prints the packages of FILE that RELEASE needs, one a line. FILE has one package a line, with
# an optional second column: the releases that have it. # starts a comment.
list_packages() {
  awk -v release="$2" '{ sub(/#.*/, "") } NF == 1 { print $1 }
    { for (i = 2; i <= NF; i++) if ($i == release) print $1 }' "$1" | sort -u
}

# missing_packages FILE RELEASE: prints the packages of FILE that are not installed.
missing_packages() {
  comm -23 <(list_packages "$1" "$2") \
    <(dpkg-query -W -f='${Package} ${db:Status-Status}\n' 2>/dev/null | awk '$2 == "installed" { print $1 }' | sort -u)
}

# require_packages FILE: installs the missing ones as root; without root it names them and gives up.
require_packages() {
  local release missing
  release=$(debian_release) || exit 1
  missing=$(missing_packages "$1" "$release" | tr '\n' ' ')
  [ -n "${missing// /}" ] || return 0
  [ "$(id -u)" -eq 0 ] || die "missing packages: $missing- install them as root: apt-get install $missing"
  say "installing $missing"
  export DEBIAN_FRONTEND=noninteractive
  # shellcheck disable=SC2086  # one word per package
  apt-get install -y --no-install-recommends $missing >/dev/null 2>&1 ||
    { apt-get update -q >&2 && apt-get install -y -q --no-install-recommends $missing >&2; } ||
    die "apt-get could not install $missing"
}

# build_preset PRESET [TARGET...]: configures and builds build/PRESET on all cores.
build_preset() {
  local preset=$1
  shift
  local log="build/configure-$preset.log"
  say "building $preset"
  mkdir -p build
  cmake --preset "$preset" >"$log" 2>&1 || { cat "$log" >&2; die "cmake --preset $preset failed"; }
  cmake --build "build/$preset" -j "$(nproc)" ${1:+--target "$@"}
}
