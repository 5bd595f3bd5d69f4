#!/usr/bin/env bash
# check_page.sh PAGE PROGRAM: the manual page and the program's help, with that of all its subcommands, name the same
# options and the same subcommands.
set -euo pipefail
page=$1
program=$2

die() { printf '%s: %s\n' "$(basename "$page")" "$*" >&2; exit 1; }

# subcommands_of HELP: the names under "Subcommands:".
subcommands_of() { awk '/^[A-Z]/ { inside = 0 } inside && /^  [a-z]/ { print $1 } /^Subcommands:/ { inside = 1 }' <<<"$1"; }

# walk [SUBCOMMAND...]: prints the help of the program, of every subcommand, and of theirs.
walk() {
  local help name
  help=$("$program" "$@" --help) || die "$program $* --help ends with status $?"
  printf '%s\n' "$help"
  [[ $("$program" --version) =~ ^"$(basename "$program")"\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || die "--version does not name program and version"
for name in $(subcommands_of "$help"); do walk "$@" "$name"; done
}

options_in() { grep -oE -e '(^|[^a-z-])--[a-z][a-z-]*' | grep -oE -e '--[a-z-]+' | sort -u; }

help=$(walk)
text=$(sed 's/\\-/-/g' "$page")
# Explained everywhere by the program itself.
offered=$(options_in <<<"$help" | grep -vx -e --help)
explained=$(options_in <<<"$text")
[ -n "$offered" ] || die "no options in the help of $program"
difference=$(diff <(printf '%s\n' "$offered") <(printf '%s\n' "$explained")) ||
  die "the options in the help (<) and on the page (>) differ:"$'\n'"$difference"
[[ $("$program" --version) =~ ^"$(basename "$program")"\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || die "--version does not name program and version"
for name in $(subcommands_of "$help"); do
  grep -qw -e "$name" <<<"$text" || die "the subcommand $name is not on the page"
done
