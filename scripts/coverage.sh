#!/usr/bin/env bash
# Which lines and branches of the library its tests reach: a table of src/ and include/. Fails unless
# that is every line, and every branch of what reads weight files. Takes about three minutes on two
# cores.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --tests
cmake --preset host-coverage >/dev/null
cmake --build --preset host-coverage --target facezoo_tests
tests=build/host-coverage/bin/facezoo_tests
results=build/host-coverage/coverage
rm -rf "$results"
mkdir "$results"

# One network's faults stand for all. A library that is unloaded takes its counters along.
# %c: counters live in the file itself, so that those of forks that just end count, too.
export LLVM_PROFILE_FILE=$results/%p%c.profraw
cores=$(nproc)
for filter in '-FaultSweep.*:*Lifetimes.*:LibraryUnload.*' 'FaultSweep.*/DexpressionNet'; do
  "$tests" --gtest_filter="$filter" --gtest_list_tests
done |
  awk '/^[^ ]/ {suite = $1; next} {print suite $1}' |
  OMP_NUM_THREADS=1 xargs -P "$cores" -I{} "$tests" --gtest_filter={} --gtest_brief=1 \
    >"$results/tests.log" 2>&1 || {
  cat "$results/tests.log"
  exit 1
}
llvm-profdata merge -sparse "$results"/*.profraw -o "$results/all.profdata"
llvm-cov export -format=lcov "$tests" -instr-profile="$results/all.profdata" \
  "$PWD/src" "$PWD/include" >"$results/all.info"
python3 scripts/coverage_table.py "$results/all.info" \
  src/document.cpp src/file_bytes.cpp src/network.cpp src/layer.cpp
echo "coverage: $SECONDS s"
