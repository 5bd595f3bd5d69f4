#!/usr/bin/env bash
# Starts an element on this machine and shows it at work: see usage below.
set -euo pipefail
cd "$(dirname "$0")"
. packaging/functions.sh
. packaging/element.sh

usage() {
  cat <<'END'
Usage: ./run.sh [--keep] [--config FILE.xml]

Installs the packages that are missing (as root) and builds, then starts the database server, the manager and the
daemon in a directory of their own, commits a configuration over NETCONF and shows what the manager now holds.

  --keep         leave the element running until Ctrl-C, and say how to talk to it
  --config FILE  the configuration to commit (default: examples/two-ports.xml)
END
}

keep=
config=examples/two-ports.xml
while [ $# -gt 0 ]; do
  case $1 in
    --keep) keep=yes ;;
    --config) [ $# -gt 1 ] || die "--config needs a file"; config=$2; shift ;;
    -h | --help) usage; exit 0 ;;
    *) usage >&2; die "unknown argument $1" ;;
  esac
  shift
done

require_packages packaging/debian-packages.txt
build_preset release >&2
cmake --install build/release --prefix build/installed >/dev/null
export PATH="$PWD/build/installed/bin:$PWD/build/installed/sbin:$PATH"

dir=$(mktemp -d "${TMPDIR:-/tmp}/ip-spoofing-element.XXXXXX")
clean_up() {
  stop_element
  rm -rf "$dir"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

say "starting the element in $dir"
new_element "$dir"
start_part cdbd cdbd
start_part ip-spoofing-mgr ip-spoofing-mgr --dataplane memory
wait_for_part cdbd netconf.sock
wait_for_part ip-spoofing-mgr mgr.sock
start_part ip-spoofing-app ip-spoofing-app

say "committing $config over NETCONF"
ip-spoofing-cli load "$config"

# The daemon has followed when it has done its part of the commit; the load at its start is the same road.
sources=$(grep -c '<address>' "$config" || true)
all_there() { [ "$(ip-spoofing-ctl show --json | grep -c '"address"')" -ge "$sources" ]; }
wait_until 30 all_there || { cat "$IP_SPOOFING_RUN_DIR"/*.log >&2; die "the configuration did not reach the manager"; }
say "what the manager holds"
ip-spoofing-ctl show

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
