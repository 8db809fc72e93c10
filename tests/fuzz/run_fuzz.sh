#!/bin/sh
# Runs every harness of a fuzz build for N seconds each, one after the
# other, from the kept corpus; prints executions and findings per harness.
# Usage: run_fuzz.sh <fuzz build directory> <seconds>
# New inputs go to <build>/corpus/<harness>/, findings (crash-*, leak-*,
# timeout-*, oom-*) to <build>/findings/<harness>/: copy a finding into
# tests/fuzz/corpus/<harness>/ once it is fixed.
set -u
build=$1
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)
status=0
for harness in "$build"/fuzz_*; do
  [ -x "$harness" ] || continue
  name=$(basename "$harness" | sed 's/^fuzz_//')
  work="$build/corpus/$name"
  findings="$build/findings/$name"
  mkdir -p "$work" "$findings"
  log="$build/fuzz_$name.log"
  "$harness" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -close_fd_mask=1 \
    -print_final_stats=1 -dict="$here/$name.dict" -artifact_prefix="$findings/" \
    "$work" "$here/corpus/$name" >"$log" 2>&1
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  found=$(ls "$findings" | wc -l)
  echo "fuzz_$name: ${runs:-?} executions in $seconds s, $found finding(s) (log: $log)"
  [ "$found" -eq 0 ] || status=1
done
exit $status
