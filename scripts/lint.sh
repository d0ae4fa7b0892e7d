#!/usr/bin/env bash
# Checks formatting (clang-format) and runs clang-tidy over the library and tools.
#   bash scripts/lint.sh            # format check + clang-tidy
#   bash scripts/lint.sh --format   # format check only (fast; CI runs this)
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h' | grep -v '^tests/consumer/')
clang-format --dry-run -Werror "${files[@]}"
echo "clang-format: ${#files[@]} files clean"
[ "${1:-}" = "--format" ] && exit 0
[ -f build/debug/compile_commands.json ] || bash scripts/build.sh debug
mapfile -t sources < <(git ls-files 'src/*.cpp' 'tools/*.cpp')
clang-tidy -p build/debug --quiet "${sources[@]}"
