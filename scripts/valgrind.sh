#!/usr/bin/env bash
# The tests of the library under valgrind's memcheck, which sees what the sanitizers do not: reads of
# memory that nobody wrote, in the distribution's libraries as well. Faults are sampled.
#   scripts/valgrind.sh [FILTER]           default: all; else a filter of GoogleTest
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --tests --valgrind
cmake --preset host >/dev/null
cmake --build --preset host --target facezoo_tests
tests=build/host/bin/facezoo_tests
results=build/host/valgrind
rm -rf "$results"
mkdir "$results"
cores=$(nproc) # which heeds OMP_NUM_THREADS
export GTEST_BRIEF=1 OMP_NUM_THREADS=1 FACEZOO_FAULT_POINTS=2 FACEZOO_CYCLES=2

# The forks of a sweep end where they stand, with all they have.
"$tests" --gtest_filter="${1:-*}" --gtest_list_tests |
  awk -v tests="$tests" '/^[^ ]/ {suite = $1; next}
    {print "--leak-check=" (suite ~ /Sweep/ ? "no" : "full"), tests, "--gtest_filter=" suite $1}' |
  xargs -P "$cores" -L 1 valgrind --quiet --error-exitcode=1 --errors-for-leak-kinds=definite \
    --trace-children=no --log-file="$results/%p.log" >"$results/tests.log" 2>&1 || {
  cat "$results"/*.log
  exit 1
}
found=$(cat "$results"/[0-9]*.log | wc -l)
echo "valgrind: $(find "$results" -name '[0-9]*.log' | wc -l) processes, $found lines of findings, $SECONDS s"
[ "$found" -eq 0 ]
