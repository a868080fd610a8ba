#!/usr/bin/env bash
# Fails every platform call and every allocation in the life of each network, alone and with others
# after it: the whole of what ./test.sh visits a sample of. Takes a good hour on two cores.
#   scripts/fault-sweep.sh [points]        default: all; else so many of a network's calls, and in
#                                          proportion of the rest
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --tests
cmake --preset host >/dev/null
cmake --build --preset host --target facezoo_tests facezoo_heap_tests
log=$(mktemp)
trap 'rm -f "$log"' EXIT

cores=$(nproc)  # which heeds OMP_NUM_THREADS
export FACEZOO_FAULT_POINTS=${1:-all} OMP_NUM_THREADS=1 GTEST_BRIEF=1
# In the reverse order of their names the shortest come last, which keeps all cores busy to the end.
ok=true
for tests in build/host/bin/facezoo{,_heap}_tests; do
  "$tests" --gtest_filter='*Sweep.*' --gtest_list_tests | awk -v tests="$tests" '
    /^[^ ]/ {suite = $1}
    /^ / {split($1, name, "/"); print name[2], tests, "--gtest_filter=" suite $1}'
done | sort -r | cut -d' ' -f2- |
  xargs -P "$cores" -L 1 env 2>&1 |
  tee "$log" | grep --line-buffered -v '^Running main\|^Note:\|^\[==\|^\[  PASSED' || ok=false

awk -v seconds=$SECONDS '/^visited /{visited += $2; all += $4}
  END {print "visited", visited, "of", all, "points in", seconds, "s"}' "$log"
$ok
