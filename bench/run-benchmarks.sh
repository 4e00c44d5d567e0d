#!/bin/sh
# Runs every benchmark of the Windows build once and gathers their result rows into one
# table, on the terminal and in bench/results.md.
#   run-benchmarks.sh <windows-build-dir> [--short]
# A benchmark prints its results as Markdown table rows:
#   | operation | ours | floor | ratio | target |
set -eu
build=$(cd "$1" && pwd)
mode=${2:-}
src=$(cd "$(dirname "$0")/.." && pwd)
prefix="$build/wineprefix"; . "$src/testing/wine-vars.sh"
"$src/testing/wine-env.sh" up "$build" >/dev/null
trap '"$src/testing/wine-env.sh" down "$build"' EXIT

rows=$(mktemp)
for exe in "$build"/bench/*_bench.exe; do
    [ -f "$exe" ] || continue
    echo "running $(basename "$exe") $mode" >&2
    wine "$exe" $mode </dev/null 2>&1 | tr -d '\r' | tee /dev/stderr | grep -E '^\| ' | grep -vE '^\| *operation *\|' >>"$rows" || true
done

{
    echo "# Benchmark results"
    echo
    echo "Measured by \`make bench\` on $(date -u +%Y-%m-%d) ($(nproc) cores, Wine $(wine --version 2>/dev/null | sed 's/wine-//'))."
    echo "Ratios are ours / floor, measured in the same run; the floor is the bare platform calls the operation makes."
    echo
    echo "| operation | ours | floor | ratio | target |"
    echo "|---|---|---|---|---|"
    cat "$rows"
} >"$build/bench-results.md"
rm -f "$rows"
echo
cat "$build/bench-results.md"
[ "$mode" = "--short" ] || cp "$build/bench-results.md" "$src/bench/results.md"
