#!/usr/bin/env bash
# Prints a table of the lines and branches of src/ and include/ that the library's tests reach. Fails unless
# they reach every line, and every branch of the sources that read weight files. src/client is left out: it
# is no part of the library, and is run by the tests of the tool. Takes about three minutes on two cores.
. "$(dirname "$0")/prelude.sh"
. scripts/tests.sh

build_preset host-coverage facezoo_tests
build=build/host-coverage
tests=$build/bin/facezoo_tests
results=$build/coverage
rm -rf "$results"
mkdir "$results"

# The faults of one network stand for those of all. Tests that unload the library are left out, as its
# counters go with it. %c keeps the counters in the file itself, so that those of forked processes, which
# end without writing them, count too.
export LLVM_PROFILE_FILE=$results/%p%c.profraw
export GTEST_BRIEF=1
sweep=$(kind $build fault_sweep)
lifetimes=$(kind $build lifetimes)
unload=$(kind $build unload)
{
  list_cases "$tests" "-$sweep:$lifetimes:$unload"
  list_cases "$tests" "$sweep" | grep '/DexpressionNet$'
} | sed "s,^,$tests --gtest_filter=," | run_lines >"$results/tests.log" 2>&1 || {
  cat "$results/tests.log"
  exit 1
}
llvm-profdata merge -sparse "$results"/*.profraw -o "$results/all.profdata"
llvm-cov export -format=lcov "$tests" -instr-profile="$results/all.profdata" \
  -ignore-filename-regex='/src/client/' "$PWD/src" "$PWD/include" >"$results/all.info"
python3 scripts/coverage_table.py "$results/all.info" \
  src/document.cpp src/file_bytes.cpp src/network.cpp src/layer.cpp
echo "coverage: $SECONDS s"
