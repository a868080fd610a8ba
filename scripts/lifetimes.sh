#!/usr/bin/env bash
# Constructs, calls and destroys each network many times, in a process of its own, where no memory may
# be lost; then calls four of them from eight threads, as often from each.
#   scripts/lifetimes.sh [cycles]    default: 1000, and ten times as many of DexpressionNet
set -euo pipefail
cd "$(dirname "$0")/.."

cycles=${1:-1000}
scripts/setup.sh --tests
cmake --preset host >/dev/null
cmake --build --preset host --target facezoo_tests
tests=build/host/bin/facezoo_tests

run() {
  local start=$SECONDS
  "$tests" --gtest_brief=1 --gtest_filter="$1" |
    { grep --line-buffered -v '^Running main\|^Note:\|^\[==\|^\[  PASSED' || true; }
  echo "$1: ok, $((SECONDS - start)) s"
}

for name in $("$tests" --gtest_filter='*Lifetimes.*' --gtest_list_tests | sed -n 's,^  [^/]*/\([^ ]*\).*,\1,p'); do
  factor=1
  [ "$name" != DexpressionNet ] || factor=10
  FACEZOO_CYCLES=$((factor * cycles)) OMP_NUM_THREADS=1 run "*Lifetimes.*/$name"
done
FACEZOO_THREAD_CALLS=$cycles run 'ThreadTest.*Large*'
