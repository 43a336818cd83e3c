#!/usr/bin/env bash
# Builds every libFuzzer target (clang, ASan+UBSan) and runs each for a bounded
# time, one after the other.   scripts/fuzz.sh [seconds per target=60]
#
# Each target keeps its corpus in build/fuzz/corpus/<name> (the target's name
# without "_fuzzer") and also reads the seeds in fuzz/<area>/corpus/<name>.
# Prints the stats lines of every target; fails if any target failed.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-60}"
build="$root/build/fuzz"

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
      -DVELMORA_SANITIZE=address -DVELMORA_BUILD_FUZZ=ON -DVELMORA_BUILD_TESTS=OFF -DVELMORA_BUILD_BENCH=OFF >/dev/null
mapfile -t targets < <(cmake --build "$build" --target help | grep -oE '\b[A-Za-z0-9_]+_fuzzer\b' | sort -u)
if [ "${#targets[@]}" -eq 0 ]; then
  echo "fuzz: no *_fuzzer target found" >&2
  exit 1
fi
cmake --build "$build" -j "${VELMORA_JOBS:-2}" --target "${targets[@]}"

failed=()
for bin in "$build"/bin/*_fuzzer; do
  target="$(basename "$bin")"
  name="${target%_fuzzer}"
  corpus="$build/corpus/$name"
  mkdir -p "$corpus"
  dirs=("$corpus")
  for seeds in "$root"/fuzz/*/corpus/"$name"; do
    [ -d "$seeds" ] && dirs+=("$seeds")
  done
  log="$build/$target.log"
  echo "fuzz: $target for ${seconds}s"
  status=0
  "$bin" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 "${dirs[@]}" \
    >"$log" 2>&1 || status=$?
  grep -E "stat::number_of_executed_units|stat::peak_rss_mb|Done" "$log" | sed "s/^/  $target: /" || true
  if [ "$status" -ne 0 ]; then
    tail -60 "$log"
    echo "fuzz: $target failed (exit $status); log: $log" >&2
    failed+=("$target")
  fi
done

if [ "${#failed[@]}" -ne 0 ]; then
  echo "fuzz: failed: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: every target passed"
