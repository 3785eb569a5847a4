#!/bin/sh
# Counts the tests in the GoogleTest XML reports of a directory (one report
# per test executable): prints, for each executable, how many tests ran and
# how many were skipped, then the totals. Fails when there is no report or
# when an executable ran no test at all (a suite that runs nothing is no pass).
#
# Usage: gtest_report_count.sh REPORT_DIR
set -eu
dir="${1:?usage: gtest_report_count.sh REPORT_DIR}"

set -- "$dir"/*.xml
if [ ! -f "$1" ]; then
  echo "no GoogleTest report in $dir" >&2
  exit 1
fi
awk '
  FNR == 1 { name = FILENAME; sub(/.*\//, "", name); sub(/\.xml$/, "", name); order[++files] = name }
  /<testcase / && /result="completed"/ { ran[name]++ }
  /<testcase / && /result="skipped"/ { skipped[name]++ }
  END {
    empty = 0
    for (i = 1; i <= files; ++i) {
      name = order[i]
      printf "%-24s %5d ran, %d skipped\n", name, ran[name], skipped[name]
      total += ran[name]; total_skipped += skipped[name]
      if (ran[name] == 0) empty = 1
    }
    printf "%d GoogleTest tests ran in %d executables (%d skipped)\n", total, files, total_skipped
    if (empty) { print "an executable ran no test" > "/dev/stderr"; exit 1 }
  }' "$@"
