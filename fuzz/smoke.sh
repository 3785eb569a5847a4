#!/usr/bin/env bash
# Runs every harness for a short while on a scratch copy of its seed corpus
# (and the saved regression inputs), with its dictionary. Fails when any
# harness reports a crash, a sanitizer error, a leak, a timeout or memory
# exhaustion; the input that did it is left in <build>/smoke/<harness>/.
#   fuzz/smoke.sh [build dir] [seconds per harness]
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
seconds=${2:-30}
# Undefined-behaviour reports come with their stack, like the others.
export UBSAN_OPTIONS=${UBSAN_OPTIONS:+$UBSAN_OPTIONS:}print_stacktrace=1
# Every harness, one fuzz/fuzz_*.cpp each, so that a new one is never left out.
harnesses=()
for source in fuzz/fuzz_*.cpp; do harnesses+=("$(basename "$source" .cpp)"); done

failed=()
for harness in "${harnesses[@]}"; do
  work=$build/smoke/$harness
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/artifacts"
  cp "$build/corpus/$harness"/* "$work/corpus/"
  if [ -d "fuzz/regressions/$harness" ]; then cp fuzz/regressions/"$harness"/* "$work/corpus/"; fi
  echo "== $harness: $seconds s"
  # -timeout: seconds for one input (the text harnesses take microseconds,
  # the model harnesses milliseconds); allocations past -rss_limit_mb count
  # as running out of memory.
  "$build/fuzz/$harness" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -dict="fuzz/$harness.dict" -artifact_prefix="$work/artifacts/" -print_final_stats=1 \
    "$work/corpus" >"$work/log" 2>&1
  status=$?
  grep -E '^#[0-9]+.*DONE|^stat::number_of_executed_units|^stat::peak_rss_mb' "$work/log" || true
  if [ $status -ne 0 ]; then
    failed+=("$harness")
    echo "!! $harness failed (status $status): $(ls "$work/artifacts")"
    tail -n 60 "$work/log"
  fi
done

echo "fuzz-smoke: $((${#harnesses[@]} - ${#failed[@]})) passed, ${#failed[@]} failed"
if [ ${#failed[@]} -ne 0 ]; then
  echo "findings in ${failed[*]}; the inputs are under $build/smoke/<harness>/artifacts/"
  exit 1
fi
