#!/usr/bin/env bash
# Runs the tests of the library and of the tool under valgrind's memcheck, which sees reads of memory that
# nobody wrote, also in the distribution's libraries; the sanitizers do not see these. The sweeps visit a
# sample. Two kinds of tests are left out: those that replace the heap, as memcheck replaces it too, and
# those that measure the process's memory, as memcheck keeps freed memory.
#   scripts/valgrind.sh [FILTER]           FILTER: of GoogleTest, for tests of the library; default: all
. "$(dirname "$0")/prelude.sh"
. scripts/tests.sh

scripts/setup.sh --valgrind
build_preset host facezoo_tests facezoo_tool
tests=build/host/bin/facezoo_tests
results=$PWD/build/host/valgrind
rm -rf "$results"
mkdir "$results"
export GTEST_BRIEF=1 FACEZOO_FAULT_POINTS=2 FACEZOO_THREAD_CALLS=1
lifetimes=$(kind build/host lifetimes)
sweep=$(kind build/host fault_sweep)
memcheck="$(command -v valgrind) --quiet --error-exitcode=99 --show-leak-kinds=definite \
  --errors-for-leak-kinds=definite"

# The tool's tests start this script in place of the tool. It runs `bench`, which takes times, without
# memcheck. The log gets a high number, as it must not take the place of a standard stream that a test has
# closed. The test of the progress shown is left out: under memcheck a program does not learn that another
# one, such as pv, could not be started.
tool=$PWD/build/host/bin/facezoo
cat >"$results/facezoo" <<EOF
#!/bin/sh
[ "\$1" != bench ] || exec $tool "\$@"
exec 9>$results/\$\$.log
exec $memcheck --log-fd=9 --leak-check=full $tool "\$@"
EOF
chmod +x "$results/facezoo"
{
  [ $# -gt 0 ] || for file in tests/{tool,weights_tool}_test.py; do
    sed -n "/shows_progress/d; s,^    def \(test_[a-z_]*\)(.*,python3 $file $results/facezoo samples/portrait.jpg -k \1,p" "$file"
  done
  # The forked processes of a sweep end at once, without freeing anything: they are not checked for leaks.
  list_cases "$tests" "${1:--$lifetimes}" |
    awk -v run="$memcheck --log-file=$results/%p.log" -v tests="$tests" 'NR == FNR {sweep[$0]; next}
      {print run, "--leak-check=" ($0 in sweep ? "no" : "full"), tests, "--gtest_filter=" $0}' \
      <(list_cases "$tests" "$sweep") -
} | run_lines >"$results/tests.log" 2>&1 || {
  cat "$results"/*.log
  exit 1
}
found=$(cat "$results"/[0-9]*.log | wc -l)
echo "valgrind: $(find "$results" -name '[0-9]*.log' | wc -l) processes, $found lines of findings, $SECONDS s"
[ "$found" -eq 0 ]
