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
  # One worker process that is restarted after a finding, so that a run
  # collects every finding instead of stopping at the first.
  "$harness" -fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=8192 -close_fd_mask=1 \
    -dict="$here/$name.dict" -artifact_prefix="$findings/" \
    "$work" "$here/corpus/$name" >"$log" 2>&1
  runs=$(sed -n 's/^#\([0-9]*\): cov:.*/\1/p' "$log" | tail -n 1)
  found=$(ls "$findings" | grep -c -E '^(crash|leak|timeout|oom)-')
  echo "fuzz_$name: ${runs:-?} executions in $seconds s, $found finding(s) (log: $log)"
  [ "$found" -eq 0 ] || status=1
done
exit $status
