#!/usr/bin/env bash
# Sets up, builds and tests everything: see usage below.
set -euo pipefail
cd "$(dirname "$0")"
. tools/functions.sh

usage() {
  cat <<'END'
Usage: ./test.sh [--quick] [--tests REGEX] [STEP...]

Installs the packages that are missing (as root), then runs these steps, and stops at the first that fails:
  format      layout of the sources, shellcheck over the scripts
  dev         normal build and its tests
  tidy        clang-tidy over the product's sources; every finding is an error
  asan-ubsan  the same tests under AddressSanitizer and UndefinedBehaviorSanitizer
Not run unless named: tidy-all (clang-tidy over the tests and benchmarks too), tsan (the same tests under
ThreadSanitizer), clang (a build with clang, no tests).

  --quick        only the step dev
  --tests REGEX  only the tests whose name matches
Tests that need a privilege this machine does not give are listed as skipped at the end of their step.
END
}

steps=()
ctest_args=()
while [ $# -gt 0 ]; do
  case $1 in
    --quick) steps+=(dev) ;;
    --tests) [ $# -gt 1 ] || die "--tests needs a regular expression"; ctest_args+=(-R "$2"); shift ;;
    -h | --help) usage; exit 0 ;;
    format | tidy | tidy-all | dev | asan-ubsan | tsan | clang) steps+=("$1") ;;
    *) usage >&2; die "unknown argument $1" ;;
  esac
  shift
done
[ ${#steps[@]} -gt 0 ] || steps=(format dev tidy asan-ubsan)

# run_tests PRESET: CTest's own summary is the last thing printed.
run_tests() {
  build_preset "$1"
  say "testing $1"
  ctest --preset "$1" -j "$(nproc)" --no-tests=error "${ctest_args[@]}"
}

require_packages tools/debian-packages.txt
previous=
for step in "${steps[@]}"; do
  # Said of the step before, so that the last thing printed is CTest's summary.
  [ -z "$previous" ] || say "$previous passed after $SECONDS s"
  previous=$step
  case $step in
    format) tools/check-format ;;
    tidy | tidy-all)
      [ -f build/dev/build.ninja ] || build_preset dev
      tools/check-tidy build/dev "${step/tidy-all/--all}"
      ;;
    clang) build_preset tidy ;;
    *) run_tests "$step" ;;
  esac
done
