# Sourced by package_flow_test.sh: runs installed programs as real processes
# on loopback ports (a mosquitto broker, pilot-sim, velmora-host) and talks to
# them. Every process started here is remembered by its id and stopped by it
# on exit, and nothing else is.
#
# Needs: $work (a scratch folder of the test's own).

pids=()

# Runs "$2..." every 0.1 s until it succeeds, at most $1 times.
poll() {
  local tries="$1" i
  shift
  for ((i = 0; i < tries; i++)); do "$@" && return 0; sleep 0.1; done
  return 1
}

gone() { ! kill -0 "$1" 2>/dev/null; }

stop_started() {
  local pid
  for pid in "${pids[@]}"; do
    kill -TERM "$pid" 2>/dev/null || true
  done
  for pid in "${pids[@]}"; do
    poll 50 gone "$pid" || kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  pids=()
}

fail() {
  echo "FAIL: $*" >&2
  local log
  for log in "$work"/*.out "$work"/*.log; do
    [ -s "$log" ] || continue
    echo "--- last lines of $(basename "$log")" >&2
    tail -n 25 "$log" >&2
  done
  exit 1
}

pass() { echo "ok    $*"; }

port_in_use() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Waits up to $3 s for a line starting with $2 in file $1 while pid $4 runs;
# prints the line.
wait_for_line() {
  local i line
  for ((i = 0; i < $3 * 10; i++)); do
    line="$(grep -m1 "^$2" "$1" 2>/dev/null || true)"
    if [ -n "$line" ]; then echo "$line"; return 0; fi
    kill -0 "$4" 2>/dev/null || return 1
    sleep 0.1
  done
  return 1
}

# mosquitto on a free port (tried a few times: another program may take the
# port between the check and the bind). Sets broker_port.
start_broker() {
  local mosquitto attempt
  mosquitto="$(command -v mosquitto || echo /usr/sbin/mosquitto)"
  [ -x "$mosquitto" ] || fail "mosquitto is not installed (scripts/install-deps.sh)"
  for attempt in 1 2 3 4 5; do
    broker_port=$((20000 + RANDOM % 40000))
    port_in_use "$broker_port" && continue
    {
      echo "listener $broker_port 127.0.0.1"
      echo "allow_anonymous true"
      echo "persistence false"
      if [ "$(id -u)" -eq 0 ]; then echo "user root"; fi
    } > "$work/mosquitto.conf"
    "$mosquitto" -c "$work/mosquitto.conf" > "$work/mosquitto.log" 2>&1 &
    local pid=$!
    pids+=("$pid")
    poll 50 eval 'port_in_use "$broker_port" || gone "$pid"' && port_in_use "$broker_port" && return 0
  done
  fail "mosquitto did not start"
}

# The installed simulator on a port of the kernel's choice, taking control
# commands on a pipe. Sets sim_port and sim_pid.
start_sim() {  # pilot-sim
  mkfifo "$work/sim.control"
  "$1" --port 0 --telemetry-hz 2 --control-stdin < "$work/sim.control" > "$work/sim.out" 2> "$work/sim.log" &
  sim_pid=$!
  pids+=("$sim_pid")
  exec 7> "$work/sim.control"
  local line
  line="$(wait_for_line "$work/sim.out" "pilot-sim listening on" 10 "$sim_pid")" || fail "pilot-sim did not start"
  sim_port="${line##*:}"
}

# The simulator's count of requests forwarded to it, from its status command.
sim_forwarded() {
  local before
  before="$(grep -c "forwarded request(s)" "$work/sim.out" || true)"
  echo status >&7
  poll 50 eval '[ "$(grep -c "forwarded request(s)" "$work/sim.out")" -gt "$before" ]' \
    || fail "pilot-sim did not answer the status command"
  grep "forwarded request(s)" "$work/sim.out" | tail -n 1 | sed -E 's/.*, ([0-9]+) forwarded request\(s\).*/\1/'
}

# Starts velmora-host without LD_LIBRARY_PATH: the installed RUNPATHs alone
# must find the libraries. Sets host_pid and base (its URL).
start_host() {  # velmora-host config expected-ready-line
  env -u LD_LIBRARY_PATH "$1" --config "$2" > "$work/host.out" 2> "$work/host.log" &
  host_pid=$!
  pids+=("$host_pid")
  local line
  line="$(wait_for_line "$work/host.out" "velmora-host listening on" 15 "$host_pid")" || fail "velmora-host did not listen"
  base="${line#velmora-host listening on }"
  wait_for_line "$work/host.out" "$3" 30 "$host_pid" > /dev/null || fail "velmora-host did not report \"$3\""
}

# SIGTERM, then the exit code must be 0.
stop_host() {
  kill -TERM "$host_pid"
  local status=0
  poll 100 gone "$host_pid" || true
  wait "$host_pid" || status=$?
  [ "$status" -eq 0 ] || fail "velmora-host ended with status $status after SIGTERM"
}

health() { curl -sf -m 5 "$base/host/health"; }

health_matches() { health | grep -Eq "$1"; }

# Polls the health report until it matches the extended regular expression
# $1 (bounded: 20 s).
wait_for_health() { poll 200 health_matches "$1"; }

# A host configuration: the broker, loopback HTTP on a port of the kernel's
# choice, and the plug-in entries given as JSON objects.
write_host_config() {  # file plugin-entries...
  local file="$1" entries
  shift
  entries="$(IFS=,; echo "$*")"
  cat > "$file" <<EOF
{
  "http": {"address": "127.0.0.1", "port": 0, "threads": 32},
  "mqtt": {"server_uri": "127.0.0.1:$broker_port", "user_name": "", "pawsswd": "", "client_id": "velmora-package-test"},
  "station": {"station_sn": "station-package"},
  "plugins": [$entries],
  "log": {"level": "information", "file": "console"}
}
EOF
}
