#!/bin/sh
# Runs every fuzz target over a copy of its seed corpus, for at most <seconds> each and, when
# given, at most <executions> each. Prints the executions each target reached; exits
# non-zero on a finding (the crashing input is left in the build tree as crash-*, to be kept
# as a regression seed).
#   run-fuzzers.sh <fuzz-build-dir> <seconds-per-target> [executions-per-target]
set -eu
build=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/../.." && pwd)
status=0
# Targets come from the sources, so a binary left from a deleted target is never run.
for source in "$src"/testing/fuzz/fuzz_*.cpp; do
    name=$(basename "$source" .cpp)
    exe="$build/testing/fuzz/$name"
    target=${name#fuzz_}
    work="$build/fuzz-work/$target"
    mkdir -p "$work/corpus"
    cp -r "$src/testing/corpus/$target/." "$work/corpus/" 2>/dev/null || true
    if (cd "$work" && "$exe" -max_total_time="$2" ${3:+-runs="$3"} -print_final_stats=1 -rss_limit_mb=2048 \
            -timeout=10 corpus >log.txt 2>&1); then
        printf '%-22s %12s executions (%s/s), no finding\n' "$target" \
            "$(awk '/stat::number_of_executed_units/ {print $2}' "$work/log.txt")" \
            "$(awk '/stat::average_exec_per_sec/ {print $2}' "$work/log.txt")"
    else
        printf '%-22s FINDING, see %s\n' "$target" "$work/log.txt"
        tail -n 30 "$work/log.txt"
        status=1
    fi
done
exit $status
