#!/usr/bin/env bash
# Starts an element on this machine and shows it at work: see usage below.
set -euo pipefail
cd "$(dirname "$0")"
. tools/functions.sh
. tools/element.sh

usage() {
  cat <<'END'
Usage: ./run.sh [--keep] [--config FILE.xml]

Installs the packages that are missing (as root) and builds, then starts the database server, the manager and the
daemon in a directory of their own, commits a configuration over NETCONF and shows what the manager now holds. Where the
system allows a network namespace of its own, it makes three ports there, sends allowed and spoofed frames into them and
shows what became of each.

  --keep         leave the element running until Ctrl-C, and say how to talk to it
  --config FILE  the configuration to commit (default: examples/two-ports.xml)
END
}

keep=
config=examples/two-ports.xml
arguments=("$@")
while [ $# -gt 0 ]; do
  case $1 in
    --keep) keep=yes ;;
    --config) [ $# -gt 1 ] || die "--config needs a file"; config=$2; shift ;;
    -h | --help) usage; exit 0 ;;
    *) usage >&2; die "unknown argument $1" ;;
  esac
  shift
done

if [ -z "${IP_SPOOFING_OWN_NETWORK:-}" ]; then
  require_packages tools/debian-packages.txt
  build_preset release >&2
  cmake --install build/release --prefix build/installed >/dev/null
  # The rest runs in namespaces that end with it, where there are any to be had.
  own=(unshare --net --mount)
  [ "$(id -u)" -eq 0 ] || own=(unshare --map-root-user --net --mount)
  if "${own[@]}" true 2>/dev/null; then
    IP_SPOOFING_OWN_NETWORK=yes exec "${own[@]}" "./$(basename "$0")" "${arguments[@]}"
  fi
  say "this system allows no network namespace of our own: only the memory dataplane is shown, which filters no frame"
fi
export PATH="$PWD/build/installed/bin:$PWD/build/installed/sbin:$PATH"

dir=$(mktemp -d "${TMPDIR:-/tmp}/ip-spoofing-element.XXXXXX")
clean_up() {
  stop_element
  umount "$dir/run/bpf" 2>/dev/null || true
  rm -rf "$dir"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

say "starting the element in $dir"
new_element "$dir"
start_part cdbd cdbd
plane=memory
if [ -n "${IP_SPOOFING_OWN_NETWORK:-}" ]; then
  plane=auto
  for port in sp1 sp2 sp3; do
    ip link add $port arp off type veth peer name s-$port arp off
    ip link set s-$port up
    ip link set $port up
  done
fi
start_part ip-spoofing-mgr ip-spoofing-mgr --dataplane $plane
wait_for_part cdbd netconf.sock
wait_for_part ip-spoofing-mgr mgr.sock
start_part ip-spoofing-app ip-spoofing-app
is_told() { ip-spoofing-cli show subscribers | grep -q ip-spoofing-app; }
wait_until 30 is_told || { cat "$IP_SPOOFING_RUN_DIR"/*.log >&2; die "the daemon did not start"; }

say "committing $config over NETCONF"
ip-spoofing-cli load "$config"

# The daemon has followed when it has done its part of the commit; the load at its start is the same road.
sources=$(grep -c '<address>' "$config" || true)
all_there() { [ "$(ip-spoofing-ctl show --json | grep -c '"address"')" -ge "$sources" ]; }
wait_until 30 all_there || { cat "$IP_SPOOFING_RUN_DIR"/*.log >&2; die "the configuration did not reach the manager"; }
# What narrows follows a moment behind what widens.
all_settled() { ! ip-spoofing-ctl show --json | grep -q 'being changed'; }
wait_until 30 all_settled || die "the manager does not come to rest"
say "what the manager holds"
ip-spoofing-ctl show
if [ -n "${IP_SPOOFING_OWN_NETWORK:-}" ] && [ "$config" = examples/two-ports.xml ]; then
  say "frames sent into the ports ($(grep -o 'dataplane [a-z]*: the best.*' "$IP_SPOOFING_RUN_DIR/ip-spoofing-mgr.log" | tail -1))"
  build/release/demo/show-filter || die "a frame was not treated as expected"
fi

if [ -n "$keep" ]; then
  cat >&2 <<END
== the element runs until Ctrl-C. In another shell:
   export IP_SPOOFING_RUN_DIR=$IP_SPOOFING_RUN_DIR IP_SPOOFING_STATE_DIR=$IP_SPOOFING_STATE_DIR
   export PATH=$PWD/build/installed/bin:\$PATH
   ip-spoofing-cli load FILE.xml
   ip-spoofing-ctl show
   Logs: $IP_SPOOFING_RUN_DIR/*.log
END
  while part_runs cdbd && part_runs ip-spoofing-mgr && part_runs ip-spoofing-app; do sleep 1; done
  die "a part of the element ended; its log is above" "$(tail -n 5 "$IP_SPOOFING_RUN_DIR"/*.log >&2)"
fi
say "the element ends"
