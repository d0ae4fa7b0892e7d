#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for SECONDS (default 20)
# on a scratch copy of its seed corpus, so the repository is never modified.
# Fails if any target finds a crash. Crash inputs are kept under build-fuzz/findings/.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail

seconds="${1:-20}"
shift || true
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -eq 0 ]; then
  echo "fuzz.sh: SECONDS must be a positive integer, got '$seconds'" >&2
  exit 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${PLENK_FUZZ_BUILD_DIR:-$root/build-fuzz}"
targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
  targets=(fuzz_weight fuzz_button fuzz_config fuzz_hex_converter fuzz_cli_hex)
fi

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DPLENK_BUILD_FUZZ=ON -DPLENK_BUILD_TESTS=OFF -DPLENK_BUILD_BENCH=OFF -DPLENK_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j "${PLENK_JOBS:-2}" --target "${targets[@]}"

scratch="$(mktemp -d "${TMPDIR:-/tmp}/plenk-fuzz.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT
findings="$build/findings"
mkdir -p "$findings"

failed=()
for target in "${targets[@]}"; do
  corpus="$scratch/$target"
  mkdir -p "$corpus"
  if [ -d "$root/fuzz/corpus/$target" ]; then
    cp -R "$root/fuzz/corpus/$target/." "$corpus/"
  fi
  echo "== $target: ${seconds}s"
  if ! "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$findings/$target-" "$corpus" >"$scratch/$target.log" 2>&1; then
    failed+=("$target")
    tail -n 40 "$scratch/$target.log"
  else
    grep -E '^stat::number_of_executed_units|^Done' "$scratch/$target.log" || true
  fi
done

if [ "${#failed[@]}" -ne 0 ]; then
  echo "fuzz.sh: crashes in: ${failed[*]} (inputs in $findings)" >&2
  exit 1
fi
echo "fuzz.sh: all ${#targets[@]} targets ran ${seconds}s without a crash"
