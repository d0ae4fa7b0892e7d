#!/usr/bin/env bash
# Builds the debug preset and runs the whole test suite: bash scripts/test.sh [preset]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-debug}
bash scripts/setup.sh --if-needed
bash scripts/build.sh "$preset"
ctest --preset "$preset" -j"$(nproc)"
