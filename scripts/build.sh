#!/usr/bin/env bash
# Configures and builds one preset (release, debug, asan, tsan, fuzz): bash scripts/build.sh release
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
shift || true
export PLENK_WERROR=${PLENK_WERROR:-OFF}
cmake --preset "$preset" "$@" >/dev/null
cmake --build --preset "$preset" -j"$(nproc)"
