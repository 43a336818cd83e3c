#!/usr/bin/env bash
# Runs the gateway from a build tree: an MQTT broker, the micro-service
# simulator and the reference host with the plug-in, configured to find each
# other on loopback ports. Ctrl-C stops what it started, and nothing else.
#
#   scripts/demo-stack.sh [--smoke] BUILD_DIR
#
#   --smoke   start everything, check health, one request, the event stream
#             and one MQTT command, stop, and exit 0 only if all passed.
#
# Environment (all optional):
#   VELMORA_HTTP_PORT     host HTTP port (default 8080)
#   VELMORA_SIM_PORT      simulator port (default 7700)
#   VELMORA_MQTT_PORT     port of the broker the demo starts (default 1883)
#   VELMORA_MQTT_URI      use this broker ("host:port") instead of starting one
#   VELMORA_HTTP_TOKEN    require "Authorization: Bearer <token>" on HTTP
#   VELMORA_TELEMETRY_HZ  simulator telemetry rate (default 5)
#   VELMORA_STATION_SN    station serial number (default station-1)
# A busy default port is replaced by the next free one, and the demo says so.
set -euo pipefail

smoke=0
if [ "${1:-}" = "--smoke" ]; then smoke=1; shift; fi
if [ $# -ne 1 ] || [ ! -d "$1" ]; then
  echo "usage: $0 [--smoke] BUILD_DIR" >&2
  exit 2
fi
build="$(cd "$1" && pwd)"
bin="$build/bin"
plugin="$build/lib/libVelmoraPluginPilotControl.so"
for f in "$bin/velmora-host" "$bin/pilot-sim" "$plugin"; do
  [ -e "$f" ] || { echo "demo: $f is missing; build the tree first" >&2; exit 1; }
done

station="${VELMORA_STATION_SN:-station-1}"
telemetry_hz="${VELMORA_TELEMETRY_HZ:-5}"
token="${VELMORA_HTTP_TOKEN:-}"
topic_guid="FBE242B9-B226-4401-A340-36ABD4D753AD"
plugin_guid="{D639B3D5-A951-4BC7-A629-91255EBF9638}"
work="$(mktemp -d "${TMPDIR:-/tmp}/velmora-demo.XXXXXX")"

# --- processes this script started, stopped in reverse order on exit --------
# Each runs in a session of its own (setsid), so a Ctrl-C in the terminal
# reaches this script alone, which then stops them one by one, host first.
pids=()
names=()
stop_all() {
  local i pid
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    pid="${pids[$i]}"
    kill -0 "$pid" 2>/dev/null || continue
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    if kill -0 "$pid" 2>/dev/null; then
      echo "demo: ${names[$i]} (pid $pid) did not stop in 5 s; killing it" >&2
      kill -KILL "$pid" 2>/dev/null || true
    fi
    wait "$pid" 2>/dev/null || true
  done
  pids=()
}
trap stop_all EXIT
trap 'echo; echo "demo: stopping"; exit 130' INT TERM

started() { pids+=("$1"); names+=("$2"); }

# --- ports --------------------------------------------------------------------
port_in_use() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
pick_port() {  # default name
  local p
  for ((p = $1; p < $1 + 100 && p < 65536; p++)); do
    if ! port_in_use "$p"; then
      [ "$p" = "$1" ] || echo "demo: port $1 is busy; $2 uses $p instead" >&2
      echo "$p"
      return 0
    fi
  done
  echo "demo: no free port near $1 for $2" >&2
  return 1
}
wait_for_port() {  # port seconds
  local i
  for ((i = 0; i < $2 * 10; i++)); do port_in_use "$1" && return 0; sleep 0.1; done
  return 1
}
wait_for_line() {  # file text seconds pid
  local i
  for ((i = 0; i < $3 * 10; i++)); do
    grep -q "$2" "$1" 2>/dev/null && return 0
    kill -0 "$4" 2>/dev/null || return 1
    sleep 0.1
  done
  return 1
}
fail_start() {  # name log
  echo "demo: $1 did not start; its output ($2):" >&2
  tail -n 30 "$2" >&2 || true
  exit 1
}

# --- broker -------------------------------------------------------------------
if [ -n "${VELMORA_MQTT_URI:-}" ]; then
  mqtt_uri="$VELMORA_MQTT_URI"
  echo "demo: using the broker at $mqtt_uri"
else
  command -v mosquitto >/dev/null || [ -x /usr/sbin/mosquitto ] || { echo "demo: mosquitto is not installed (scripts/install-deps.sh)" >&2; exit 1; }
  mqtt_port="$(pick_port "${VELMORA_MQTT_PORT:-1883}" "the MQTT broker")"
  {
    echo "listener $mqtt_port 127.0.0.1"
    echo "allow_anonymous true"
    echo "persistence false"
    # As root, mosquitto would switch to its own user and lose its log file.
    if [ "$(id -u)" -eq 0 ]; then echo "user root"; fi
  } > "$work/mosquitto.conf"
  setsid "$(command -v mosquitto || echo /usr/sbin/mosquitto)" -c "$work/mosquitto.conf" > "$work/mosquitto.log" 2>&1 &
  started $! "mosquitto"
  wait_for_port "$mqtt_port" 5 || fail_start "mosquitto" "$work/mosquitto.log"
  mqtt_uri="127.0.0.1:$mqtt_port"
fi
mqtt_hostport="${mqtt_uri#*://}"
mqtt_host="${mqtt_hostport%:*}"
mqtt_port="${mqtt_hostport##*:}"

# --- simulator ----------------------------------------------------------------
sim_port="$(pick_port "${VELMORA_SIM_PORT:-7700}" "pilot-sim")"
setsid "$bin/pilot-sim" --port "$sim_port" --telemetry-hz "$telemetry_hz" > "$work/pilot-sim.log" 2>&1 &
started $! "pilot-sim"
wait_for_line "$work/pilot-sim.log" "pilot-sim listening on" 10 "${pids[-1]}" || fail_start "pilot-sim" "$work/pilot-sim.log"

# --- host -----------------------------------------------------------------------
http_port="$(pick_port "${VELMORA_HTTP_PORT:-8080}" "velmora-host")"
token_entry=""
if [ -n "$token" ]; then token_entry=", \"token\": \"$token\""; fi
cat > "$work/velmora-host.json" <<EOF
{
  "http": {"address": "127.0.0.1", "port": $http_port, "threads": 128$token_entry},
  "mqtt": {"server_uri": "$mqtt_uri", "user_name": "", "pawsswd": "", "client_id": "velmora-host-$station"},
  "station": {"station_sn": "$station"},
  "plugins": [{"library": "$plugin", "service_address": "127.0.0.1", "service_port": $sim_port}],
  "log": {"level": "information", "file": "$work/velmora-host.log"}
}
EOF
setsid "$bin/velmora-host" --config "$work/velmora-host.json" > "$work/velmora-host.out" 2>&1 &
host_pid=$!
started "$host_pid" "velmora-host"
wait_for_line "$work/velmora-host.out" "velmora-host ready:" 30 "$host_pid" || fail_start "velmora-host" "$work/velmora-host.out"

base="http://127.0.0.1:$http_port"
auth=()
auth_text=""
if [ -n "$token" ]; then auth=(-H "Authorization: Bearer $token"); auth_text=" -H 'Authorization: Bearer $token'"; fi
ground_topic="/velmora/pilot/$topic_guid/SIM-UAV-0001/cmd"
request='{"type":"request","from":"my-app","target":"'"$station"'","msgId":"1","message":{}}'
command='{"api":"getVersionInfo","type":"request","from":"my-app","target":"'"$station"'","msgId":"42","message":{}}'

cat <<EOF

The Velmora gateway is running:
  velmora-host  $base   (log: $work/velmora-host.log)
  pilot-sim     127.0.0.1:$sim_port   (log: $work/pilot-sim.log)
  MQTT broker   $mqtt_uri
  configuration $work/velmora-host.json
  console       $base/host/console   (open it in a browser)
  API           $base/host/openapi.json   (OpenAPI 3 description)

Try, in another terminal:
  curl -s$auth_text $base/host/health
  curl -s$auth_text -X POST $base/index/api/pilot/getConfig -d '$request'
  curl -N$auth_text $base/index/api/pilot/pushTelemetry
  mosquitto_sub -h $mqtt_host -p $mqtt_port -v -t '/velmora/pilot/$topic_guid/#'
  mosquitto_pub -h $mqtt_host -p $mqtt_port -t '$ground_topic' -m '$command'
  curl -N$auth_text $base/host/bus
  curl -s$auth_text -X POST $base/host/bus -d '{"to":["$plugin_guid"],"guid":"{00000000-0000-4000-8000-000000000001}","api":"getConfig","type":"request","data":{}}'

EOF
if [ -z "$token" ]; then
  cat <<EOF
The API takes no token here: it listens on loopback only, and the host refuses
requests from web pages of other sites (Host and Origin checks). To require one,
start with VELMORA_HTTP_TOKEN=<secret> and send -H 'Authorization: Bearer <secret>'.

EOF
fi

if [ "$smoke" -eq 0 ]; then
  echo "Ctrl-C stops the gateway, the simulator and the broker it started."
  set +e
  wait "$host_pid"
  status=$?
  set -e
  echo "demo: velmora-host ended by itself (status $status); its output:" >&2
  tail -n 30 "$work/velmora-host.out" >&2 || true
  exit 1
fi

# --- smoke check ----------------------------------------------------------------
failures=0
check() {  # description command...
  local what="$1"
  shift
  if "$@"; then echo "smoke: ok    $what"; else echo "smoke: FAIL  $what"; failures=$((failures + 1)); fi
}
health_ok() { grep -q '"link":"up"' <<< "$(curl -sf -m 5 "${auth[@]}" "$base/host/health" || true)"; }
request_ok() {
  grep -q '"code":200' <<< "$(curl -sf -m 10 "${auth[@]}" -X POST "$base/index/api/pilot/getConfig" -d "$request" || true)"
}
stream_ok() {
  # The vehicle is reported shortly after the start; give it a few tries.
  local i out
  for i in 1 2 3 4 5; do
    # curl ends by its time limit, which is not a failure here.
    out="$(curl -sN -m 2 "${auth[@]}" "$base/index/api/pilot/pushTelemetry" 2>/dev/null || true)"
    grep -q '^data: {' <<< "$out" && return 0
    sleep 0.5
  done
  return 1
}
mqtt_ok() {
  local i
  for i in 1 2 3 4 5; do
    mosquitto_sub -h "$mqtt_host" -p "$mqtt_port" -t "$ground_topic" -C 2 -W 5 > "$work/smoke-mqtt.txt" 2>/dev/null &
    local sub=$!
    sleep 0.5
    mosquitto_pub -h "$mqtt_host" -p "$mqtt_port" -t "$ground_topic" -m "$command"
    wait "$sub" 2>/dev/null || true
    grep -q '"type":"response".*"code":200' "$work/smoke-mqtt.txt" && return 0
  done
  return 1
}
check "health: plug-in running, service link up" health_ok
check "HTTP request getConfig answered by the simulator" request_ok
check "event stream pushTelemetry carries telemetry" stream_ok
check "MQTT command getVersionInfo answered on MQTT" mqtt_ok

kill -TERM "$host_pid"
host_status=0
for _ in $(seq 1 50); do kill -0 "$host_pid" 2>/dev/null || break; sleep 0.1; done
wait "$host_pid" || host_status=$?
check "velmora-host stops on SIGTERM with exit code 0" test "$host_status" -eq 0
stop_all
if [ "$failures" -eq 0 ]; then
  echo "smoke: passed"
  rm -rf "$work"
  exit 0
fi
echo "smoke: $failures check(s) failed; logs in $work" >&2
# The logs go with the machine when this runs in CI: show their ends here.
[ "$host_status" -eq 0 ] || echo "smoke: velmora-host exited with status $host_status" >&2
for log in "$work"/*.log "$work"/*.out; do
  [ -s "$log" ] || continue
  echo "--- last lines of $(basename "$log")" >&2
  tail -n 20 "$log" >&2
done
exit 1
