#!/usr/bin/env bash
# Constructs, calls and destroys each network many times in a process of its own, which must lose no memory.
# Then calls four networks from eight threads, as many times from each thread.
#   scripts/lifetimes.sh [CYCLES]    default: 1000; ten times as many for DexpressionNet
. "$(dirname "$0")/prelude.sh"
. scripts/tests.sh

cycles=${1:-1000}
build_preset host facezoo_tests
tests=build/host/bin/facezoo_tests
lifetimes=$(kind build/host lifetimes)
thread_load=$(kind build/host thread_load)

run() {
  local start=$SECONDS
  "$tests" --gtest_brief=1 --gtest_filter="$1" |
    { grep --line-buffered -v '^Running main\|^Note:\|^\[==\|^\[  PASSED' || true; }
  echo "$1: ok, $((SECONDS - start)) s"
}

for name in $(list_cases "$tests" "$lifetimes"); do
  factor=1
  [[ $name != */DexpressionNet ]] || factor=10
  FACEZOO_CYCLES=$((factor * cycles)) OMP_NUM_THREADS=1 run "$name"
done
FACEZOO_THREAD_CALLS=$cycles run "$thread_load"
