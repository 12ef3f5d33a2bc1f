#!/usr/bin/env bash
# run.sh PROGRAM CORPUS: one libFuzzer program for C2MS_FUZZ_SECONDS seconds (5). Each input has a second and
# 64 MiB of memory, in one piece or in several: the process, which is stopped at 160 MiB, has some 90 of its own (the
# sanitizer's shadow and its quarantine, the inputs that it keeps). Inputs that it finds
# worth keeping stay in the build folder and are used again; an input that fails is left there too and named in
# the output. How many inputs were tried is added to a file beside them, which ./dev fuzz sums up.
set -euo pipefail
program=$1 corpus=$2
found=$(dirname "$program")/../fuzz-found/$(basename "$program")
mkdir -p "$found"
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=16}
status=0
"$program" -max_total_time="${C2MS_FUZZ_SECONDS:-5}" -timeout=1 -malloc_limit_mb=64 -rss_limit_mb=160 \
  -print_final_stats=1 -verbosity=0 -artifact_prefix="$found/failed-" "$found" "$corpus" > "$found.log" 2>&1 || status=$?
cat "$found.log"
sed -n 's/^stat::number_of_executed_units: *//p' "$found.log" >> "$found.executed"
exit $status
