#!/usr/bin/env bash
# Builds and runs the benchmarks: figures, and the ratios that are wanted. Exit status 1 when one was missed.
# Usage: bench/run.sh [NAME...], e.g. bench/run.sh load commit
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/functions.sh

require_packages tools/debian-packages.txt
build_preset bench benchmarks >&2
[ $# -gt 0 ] || set -- load commit status dataplane ports
status=0
for name in "$@"; do
  say "$name"
  # The log lines of the programs under test.
  "build/bench/bench/${name}_bench" 2>"build/bench/$name.log" || { status=$?; [ "$status" -eq 1 ] || tail -n 5 "build/bench/$name.log" >&2; }
done
exit "$status"
