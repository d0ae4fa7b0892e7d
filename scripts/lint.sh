#!/usr/bin/env bash
# Checks formatting (clang-format), then runs clang-tidy (every finding is an error):
#   bash scripts/lint.sh --format    # format check only (fast)
#   bash scripts/lint.sh --changed   # + clang-tidy on what changed since .ci/tidy-base (CI runs this)
#   bash scripts/lint.sh             # + clang-tidy on all of src/ and tools/ (several minutes on 2 cores)
#   bash scripts/lint.sh --record    # the full run, then records HEAD in .ci/tidy-base (commit that file)
# .ci/tidy-base names the last commit whose whole tree passed clang-tidy. --changed checks the C++
# files of src/ and tools/ changed since then (committed or not), and those including a changed
# header; if that commit is not in the clone (a shallow clone), it checks everything.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-all}
case $mode in --format | --changed | --record | all) ;; *) echo "usage: $0 [--format|--changed|--record]" >&2; exit 2 ;; esac

mapfile -t files < <(git ls-files '*.cpp' '*.h' | grep -v '^tests/consumer/')
clang-format --dry-run -Werror "${files[@]}"
echo "clang-format: ${#files[@]} files clean"
[ "$mode" = --format ] && exit 0

[ -f build/debug/compile_commands.json ] || bash scripts/build.sh debug
mapfile -t all < <(git ls-files 'src/*.cpp' 'tools/*.cpp')
sources=("${all[@]}")
base=$(cat .ci/tidy-base 2>/dev/null || true)
if [ "$mode" = --changed ] && [ -n "$base" ] && git cat-file -e "$base^{commit}" 2>/dev/null; then
  mapfile -t changed < <({ git diff --name-only --diff-filter=d "$base" -- src tools include; git ls-files --others --exclude-standard src tools include; } | sort -u)
  sources=()
  for file in "${changed[@]}"; do
    case $file in
      *.cpp) [[ $file == src/* || $file == tools/* ]] && sources+=("$file") ;;
      *.h) # every source that includes the header by its name
        mapfile -t users < <(grep -lE "#include [<\"](.*/)?$(basename "$file")[>\"]" "${all[@]}" || true)
        sources+=("${users[@]}") ;;
    esac
  done
  mapfile -t sources < <(printf '%s\n' "${sources[@]}" | grep -v '^$' | sort -u)
  echo "clang-tidy: ${#sources[@]} source(s) changed since $(git rev-parse --short "$base")"
elif [ "$mode" = --changed ]; then
  echo "clang-tidy: .ci/tidy-base missing or not in this clone; checking everything"
fi
if [ "${#sources[@]}" -gt 0 ]; then
  printf '%s\n' "${sources[@]}" | xargs -P "$(nproc)" -n 2 clang-tidy -p build/debug --quiet
fi
echo "clang-tidy: ${#sources[@]} source(s) clean"
if [ "$mode" = --record ]; then
  git rev-parse HEAD >.ci/tidy-base
  echo "recorded $(git rev-parse --short HEAD) in .ci/tidy-base"
fi
