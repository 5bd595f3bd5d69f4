#!/usr/bin/env bash
# daemon_alone.sh SOURCE_DIR BUILD_DIR [CMAKE_OPTION...]: installs the platform of BUILD_DIR to a prefix, builds the
# daemon from nothing but src/ against it, and runs that daemon: without a manager, then with the installed element.
set -euo pipefail
source_dir=$1
build_dir=$2
shift 2
# shellcheck source=tools/functions.sh
. "$source_dir/tools/functions.sh"
# shellcheck source=tools/element.sh
. "$source_dir/tools/element.sh"

dir=$(mktemp -d)
clean_up() {
  stop_element
  rm -rf "$dir"
}
trap clean_up EXIT

say "installing the platform"
cmake --install "$build_dir" --prefix "$dir/prefix" >"$dir/install.log" || die "$(cat "$dir/install.log")"
rm -f "$dir/prefix/bin/ip-spoofing-app" "$dir/prefix/sbin/ip-spoofing-app"

say "building src/ alone"
mkdir "$dir/source"
cp -r "$source_dir/CMakeLists.txt" "$source_dir/cmake" "$source_dir/src" "$dir/source"
cmake -G Ninja -S "$dir/source" -B "$dir/build" -DPLATFORM_ROOT="$dir/prefix" "$@" >"$dir/configure.log" 2>&1 ||
  die "$(cat "$dir/configure.log")"
cmake --build "$dir/build" -j "$(nproc)" >"$dir/build.log" 2>&1 || die "$(cat "$dir/build.log")"
daemon=$(find "$dir/build" -type f -name ip-spoofing-app -perm -u+x)
[ -n "$daemon" ] || die "no ip-spoofing-app was built"
if ldd "$daemon" | grep -F "$build_dir"; then
  die "the daemon uses a library of the build instead of the installed one"
fi

say "without a manager it ends with its fault"
new_element "$dir/alone"
status=0
"$daemon" >"$dir/alone.out" 2>"$dir/alone.log" || status=$?
[ "$status" -eq 1 ] || die "exit status $status instead of 1: $(cat "$dir/alone.log")"
fault="ip-spoofing-app could not connect to ip-spoofing-mgr"
grep -qF "$fault" "$dir/alone.log" || die "no fault on standard error: $(cat "$dir/alone.log")"
grep -qF "\"$fault\"" "$IP_SPOOFING_RUN_DIR/faults.jsonl" || die "no such fault in the fault file"

say "with the element it brings the configuration into force"
export PATH="$dir/prefix/bin:$dir/prefix/sbin:$PATH"
new_element "$dir/element"
start_part cdbd cdbd
start_part ip-spoofing-mgr ip-spoofing-mgr --dataplane memory
wait_for_part cdbd netconf.sock
wait_for_part ip-spoofing-mgr mgr.sock
ip-spoofing-cli load "$source_dir/examples/two-ports.xml"
start_part ip-spoofing-app "$daemon"
holds_example() { ip-spoofing-ctl show | grep -qF 10.2.0.9; }
wait_until 30 holds_example || die "the manager does not hold the configuration: $(ip-spoofing-ctl show)"
stop_part ip-spoofing-app || die "exit status $? after SIGTERM: $(cat "$IP_SPOOFING_RUN_DIR/ip-spoofing-app.log")"
grep -qxF "ip-spoofing-app: Leaving..." "$IP_SPOOFING_RUN_DIR/ip-spoofing-app.out" || die "no farewell"
say "passed"
