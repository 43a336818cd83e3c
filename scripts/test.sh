#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite.
#   scripts/test.sh [plain|asan|tsan]   (default plain; tsan also runs each
#   test binary whole, see the end)
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

# ctest gives every test a process of its own. Under ThreadSanitizer each test
# binary also runs whole, once: a thread that one test leaves running then
# meets the next test's objects, which is where such a race shows.
if [ "$flavour" = tsan ]; then
  mkdir -p whole-binary-logs
  failed=()
  for binary in bin/*_test bin/*_tests; do
    [ -x "$binary" ] || continue
    name="$(basename "$binary")"
    log="whole-binary-logs/$name.log"
    if timeout 900 "$binary" >"$log" 2>&1; then
      echo "whole binary: $name passed"
    else
      echo "whole binary: $name FAILED; log: build/$flavour/$log"
      tail -60 "$log"
      failed+=("$name")
    fi
  done
  if [ "${#failed[@]}" -ne 0 ]; then
    echo "failed when run whole under ThreadSanitizer: ${failed[*]}" >&2
    exit 1
  fi
fi
