#!/usr/bin/env bash
# Fails every platform call in the life of each network, once and from then on: the whole of what
# ./test.sh visits a sample of. Takes about half an hour on two cores.
#   scripts/fault-sweep.sh [points]        default: all; else as many of each network's life
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset host >/dev/null
cmake --build --preset host --target facezoo_tests
tests=build/host/bin/facezoo_tests
log=$(mktemp)
trap 'rm -f "$log"' EXIT

cores=$(nproc)  # which heeds OMP_NUM_THREADS
export FACEZOO_FAULT_POINTS=${1:-all} OMP_NUM_THREADS=1
# In this order the shortest come last, which keeps all cores busy to the end.
ok=true
"$tests" --gtest_filter='FaultSweep.*' --gtest_list_tests |
  sed -n 's/^  \([^ ]*\).*/FaultSweep.\1/p' | sort -r -t/ -k2 |
  xargs -P "$cores" -I{} "$tests" --gtest_filter={} --gtest_brief=1 2>&1 |
  tee "$log" | grep --line-buffered -v '^Running main\|^Note:\|^\[==\|^\[  PASSED' || ok=false

awk -v seconds=$SECONDS '/^visited /{visited += $2; all += $4}
  END {print "visited", visited, "of", all, "fault points in", seconds, "s"}' "$log"
$ok
