#!/bin/sh
# Runs every fuzz target for a bounded time over a copy of its seed corpus.
#   run-fuzzers.sh <fuzz-build-dir> <seconds-per-target> [executions-per-target]
# With an execution count, a target stops at that count or at the time limit, whichever
# comes first.
# Prints the executions each target reached; exits non-zero on the first finding (the
# crashing input is left in the build tree as crash-*, to be kept as a regression seed).
set -eu
build=$(cd "$1" && pwd)
seconds=$2
runs=${3:-}
src=$(cd "$(dirname "$0")/../.." && pwd)
status=0
# Targets come from the sources, so a binary left from a deleted target is never run.
for source in "$src"/testing/fuzz/fuzz_*.cpp; do
    name=$(basename "$source" .cpp)
    exe="$build/testing/fuzz/$name"
    target=${name#fuzz_}
    work="$build/fuzz-work/$target"
    mkdir -p "$work/corpus"
    if [ -d "$src/testing/corpus/$target" ]; then
        cp -r "$src/testing/corpus/$target/." "$work/corpus/" 2>/dev/null || true
    fi
    log="$work/log.txt"
    if (cd "$work" && "$exe" -max_total_time="$seconds" ${runs:+-runs="$runs"} -print_final_stats=1 -rss_limit_mb=2048 \
            -timeout=10 corpus >"$log" 2>&1); then
        done_runs=$(grep -E "stat::number_of_executed_units" "$log" | awk '{print $2}')
        rate=$(grep -E "stat::average_exec_per_sec" "$log" | awk '{print $2}')
        printf '%-22s %12s executions (%s/s), no finding\n' "$target" "${done_runs:-?}" "${rate:-?}"
    else
        printf '%-22s FINDING, see %s\n' "$target" "$log"
        tail -n 30 "$log"
        status=1
    fi
done
exit $status
