# Shell functions that run.sh, test.sh and the scripts in tools/ share. Sourced by bash from the project's root.
# shellcheck shell=bash

# say TEXT...: one line of progress on standard error, so that standard output stays the tool's own.
say() { printf '== %s\n' "$*" >&2; }

# die TEXT...: one clear line, exit status 1.
die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# missing_packages FILE: prints the packages of FILE (one a line, # starts a comment) that are not installed.
missing_packages() {
  local wanted
  wanted=$(sed -e 's/#.*//' "$1" | awk 'NF { print $1 }' | sort -u)
  # shellcheck disable=SC2086  # one word per package
  comm -23 <(printf '%s\n' $wanted) \
    <(dpkg-query -W -f='${Package} ${db:Status-Status}\n' 2>/dev/null | awk '$2 == "installed" { print $1 }' | sort -u)
}

# require_packages FILE: installs the missing ones as root; without root it names them and gives up.
require_packages() {
  local missing
  command -v dpkg-query >/dev/null || die "this is no Debian system; needed are the packages of $1 and what they provide"
  missing=$(missing_packages "$1" | tr '\n' ' ')
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
