#!/usr/bin/env bash
# Runs velmora-bench-e2e and samples the host it starts with perf while the
# driver measures, then prints where the host's CPU time went.
#   bench/e2e/profile-host.sh BUILD_DIR [SECONDS (40)] [driver options...]
# Installs perf (Debian's linux-perf) when it is missing. The report is in
# BUILD_DIR/perf-host.data; the driver's table in BUILD_DIR/perf-bench.txt.
set -euo pipefail
build="${1:?usage: profile-host.sh BUILD_DIR [SECONDS] [driver options...]}"
seconds="${2:-40}"
shift $(( $# >= 2 ? 2 : 1 ))
if ! command -v perf >/dev/null 2>&1; then
  apt-get install -y linux-perf >/dev/null
fi
driver="$build/bin/velmora-bench-e2e"
"$driver" "$@" >"$build/perf-bench.txt" 2>&1 &
driver_pid=$!
host_pid=""
for _ in $(seq 1 100); do
  host_pid="$(pgrep -P "$driver_pid" -x velmora-host || true)"
  [ -n "$host_pid" ] && break
  sleep 0.2
done
if [ -z "$host_pid" ]; then
  echo "profile-host: the driver started no host" >&2
  kill "$driver_pid" 2>/dev/null || true
  exit 1
fi
perf record -F 999 -g -p "$host_pid" -o "$build/perf-host.data" -- sleep "$seconds" >/dev/null 2>&1 || true
wait "$driver_pid" || true
cat "$build/perf-bench.txt"
perf report -i "$build/perf-host.data" --stdio --no-children --sort dso,symbol 2>/dev/null | grep -v '^#' | grep '%' | head -40
