#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite.
#   scripts/test.sh [plain|asan|tsan]   (default plain)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
flavour="${1:-plain}"

"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$flavour"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"

cd "$root/build/$flavour"
ctest --output-on-failure -j "${VELMORA_TEST_JOBS:-2}" --timeout 600
