#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under ASan+UBSan and runs each for a
# bounded time.   scripts/fuzz.sh [seconds=60]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-60}"
build="$root/build/fuzz"

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
      -DVELMORA_SANITIZE=address -DVELMORA_BUILD_FUZZ=ON -DVELMORA_BUILD_TESTS=OFF -DVELMORA_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "${VELMORA_JOBS:-2}" --target rpc_receive_fuzzer

corpus="$build/corpus/rpc_receive"
mkdir -p "$corpus"
echo "fuzz: rpc_receive_fuzzer for ${seconds}s"
log="$build/rpc_receive_fuzzer.log"
status=0
"$build/bin/rpc_receive_fuzzer" -max_total_time="$seconds" -rss_limit_mb=2048 -print_final_stats=1 "$corpus" \
  >"$log" 2>&1 || status=$?
grep -E "stat::number_of_executed_units|stat::peak_rss_mb|Done" "$log" || true
if [ "$status" -ne 0 ]; then
  tail -60 "$log"
  echo "fuzz: rpc_receive_fuzzer failed (exit $status); log: $log" >&2
fi
exit "$status"
