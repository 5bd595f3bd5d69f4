# An element of installed programs for scripts. Sourced by bash, after functions.sh. PATH leads to the programs.
# shellcheck shell=bash

# Process ids of what start_part started, by name.
declare -A element_pids=()

# new_element DIR: an empty element in DIR.
new_element() {
  export IP_SPOOFING_RUN_DIR=$1/run IP_SPOOFING_STATE_DIR=$1/state
  mkdir -p "$IP_SPOOFING_RUN_DIR" "$IP_SPOOFING_STATE_DIR"
}

# start_part NAME COMMAND...: in the background, standard error to DIR/NAME.log.
start_part() {
  local name=$1
  shift
  "$@" >"$IP_SPOOFING_RUN_DIR/$name.out" 2>"$IP_SPOOFING_RUN_DIR/$name.log" &
  element_pids[$name]=$!
}

# wait_until SECONDS COMMAND...: polls COMMAND until it succeeds; fails when the time is over.
wait_until() {
  local end=$((SECONDS + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || return 1
    sleep 0.02
  done
}

# part_runs NAME
part_runs() { kill -0 "${element_pids[$1]}" 2>/dev/null; }

# wait_for_part NAME SOCKET: until it listens; when it ends or takes too long, its log is shown.
wait_for_part() {
  local name=$1 socket=$IP_SPOOFING_RUN_DIR/$2
  wait_until 30 sh -c "test -S '$socket' || ! kill -0 ${element_pids[$name]}" && part_runs "$name" && return 0
  cat "$IP_SPOOFING_RUN_DIR/$name.log" >&2
  die "$name did not start"
}

# stop_part NAME: SIGTERM to that process, and waits for its end; gives its exit status.
stop_part() {
  local pid=${element_pids[$1]:-}
  [ -n "$pid" ] || return 0
  unset "element_pids[$1]"
  kill "$pid" 2>/dev/null || true
  wait "$pid"
}

# stop_element: the daemon first, the database last.
stop_element() {
  local name
  for name in ip-spoofing-app ip-spoofing-mgr cdbd; do
    stop_part "$name" || true
  done
}
