#!/usr/bin/env bash
# Fails every platform call and every allocation in the life of each network, alone and with others
# after it: the whole of what ./test.sh visits a sample of. Takes a good hour on two cores.
#   scripts/fault-sweep.sh [points]        default: all; else so many of a network's calls, and in
#                                          proportion of the rest
. "$(dirname "$0")/prelude.sh"
. scripts/tests.sh

build_preset host facezoo_tests facezoo_heap_tests
log=$(mktemp)
trap 'rm -f "$log"' EXIT

export FACEZOO_FAULT_POINTS=${1:-all} GTEST_BRIEF=1
sweep=$(kind build/host fault_sweep)
# In the reverse order of their names the shortest come last, which keeps all cores busy to the end.
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
