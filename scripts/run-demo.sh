#!/usr/bin/env bash
# Installs what is missing, builds, and runs the product's main job: the host
# with the plug-in, the micro-service simulator and an MQTT broker.
#   scripts/run-demo.sh           run until Ctrl-C
#   scripts/run-demo.sh --smoke   start, check, stop (exit 0 when all checks pass)
# Ports and the broker can be chosen through the environment; see
# scripts/demo-stack.sh.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"

"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" plain

bin="$root/build/plain/bin"
lib="$root/build/plain/lib"
echo
echo "Built: $lib/libVelmoraPluginPilotControl.so (the plug-in)"
missing=()
[ -x "$bin/pilot-sim" ] || missing+=("pilot-sim (the micro-service simulator)")
[ -x "$bin/velmora-host" ] || missing+=("velmora-host (the reference host)")
if [ ${#missing[@]} -gt 0 ]; then
  echo "Not there yet, so the demo cannot start the full stack:"
  for m in "${missing[@]}"; do echo "  - $m"; done
  echo "Run scripts/test.sh to exercise what exists."
  # A smoke run that cannot start the stack has failed.
  [ "${1:-}" = "--smoke" ] && exit 1
  exit 0
fi
exec "$root/scripts/demo-stack.sh" "$@" "$root/build/plain"
