#!/usr/bin/env bash
# Makes every platform call and every allocation in the life of each network fail, alone and together with
# those after it; ./test.sh visits a sample of these points. Takes more than an hour on two cores.
#   scripts/fault-sweep.sh [POINTS]        POINTS: of the calls of each network, and as large a part of the
#                                          allocations; default: all
. "$(dirname "$0")/prelude.sh"
. scripts/tests.sh

build_preset host facezoo_tests facezoo_heap_tests
log=$(mktemp)
trap 'rm -f "$log"' EXIT

export FACEZOO_FAULT_POINTS=${1:-all} GTEST_BRIEF=1
sweep=$(kind build/host fault_sweep)
# In the reverse order of the networks' names the shortest sweeps come last, so that all cores are busy to
# the end.
ok=true
for tests in build/host/bin/facezoo{,_heap}_tests; do
  list_cases "$tests" "$sweep" |
    awk -F/ -v tests="$tests" '{print $NF, tests, "--gtest_filter=" $0}'
done | sort -r | cut -d' ' -f2- |
  run_lines 2>&1 |
  tee "$log" | grep --line-buffered -v '^Running main\|^Note:\|^\[==\|^\[  PASSED' || ok=false

awk -v seconds=$SECONDS '/^visited /{visited += $2; all += $4}
  END {print "visited", visited, "of", all, "points in", seconds, "s"}' "$log"
$ok
