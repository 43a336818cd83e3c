#!/usr/bin/env bash
# Configures and builds one flavour of the tree.
#   scripts/build.sh [plain|asan|tsan|fuzz]   (default plain)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
flavour="${1:-plain}"
jobs="${VELMORA_JOBS:-2}"

case "$flavour" in
  plain) args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  asan)  args=(-DCMAKE_BUILD_TYPE=Debug -DVELMORA_SANITIZE=address -DVELMORA_BUILD_BENCH=OFF) ;;
  tsan)  args=(-DCMAKE_BUILD_TYPE=Debug -DVELMORA_SANITIZE=thread -DVELMORA_BUILD_BENCH=OFF) ;;
  fuzz)  args=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DVELMORA_SANITIZE=address
               -DVELMORA_BUILD_FUZZ=ON -DVELMORA_BUILD_TESTS=OFF -DVELMORA_BUILD_BENCH=OFF) ;;
  *) echo "unknown flavour: $flavour (plain, asan, tsan, fuzz)" >&2; exit 2 ;;
esac

build="$root/build/$flavour"
cmake -S "$root" -B "$build" "${args[@]}" >/dev/null
cmake --build "$build" -j "$jobs"
