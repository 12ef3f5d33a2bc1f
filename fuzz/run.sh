#!/usr/bin/env bash
# run.sh PROGRAM CORPUS: one libFuzzer program for C2MS_FUZZ_SECONDS seconds (5). Inputs that it finds
# worth keeping stay in the build folder and are used again; an input that fails is left there too and
# named in the output.
set -euo pipefail
program=$1 corpus=$2
found=$(dirname "$program")/../fuzz-found/$(basename "$program")
mkdir -p "$found"
exec "$program" -max_total_time="${C2MS_FUZZ_SECONDS:-5}" -timeout=5 -rss_limit_mb=1024 \
  -print_final_stats=1 -verbosity=0 -artifact_prefix="$found/failed-" "$found" "$corpus"
