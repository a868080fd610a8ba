#!/usr/bin/env bash
# The tests of the library and the tool under valgrind's memcheck, which sees what the sanitizers do not:
# reads of memory that nobody wrote, in the distribution's libraries as well. Faults are sampled. The
# tests that replace the heap are not among them: memcheck replaces it, too. Nor are those that measure
# the process's memory: memcheck keeps what is freed.
#   scripts/valgrind.sh [FILTER]           default: all; else the library's that a GoogleTest filter names
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --tests --valgrind
cmake --preset host >/dev/null
cmake --build --preset host --target facezoo_tests facezoo_tool
tests=build/host/bin/facezoo_tests
results=$PWD/build/host/valgrind
rm -rf "$results"
mkdir "$results"
cores=$(nproc) # which heeds OMP_NUM_THREADS
export GTEST_BRIEF=1 OMP_NUM_THREADS=1 FACEZOO_FAULT_POINTS=2 FACEZOO_THREAD_CALLS=1
memcheck="$(command -v valgrind) --quiet --error-exitcode=99 --show-leak-kinds=definite \
  --errors-for-leak-kinds=definite"

# The tool's tests start this in its place, but not to take times. Where they close standard output, no
# log may take its place. Under memcheck nobody hears that a program, as pv, could not be started.
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
  # The forks of a sweep end where they stand, with all they have.
  "$tests" --gtest_filter="${1:-*-*Lifetimes.*}" --gtest_list_tests |
    awk -v run="$memcheck --log-file=$results/%p.log" -v tests="$tests" '/^[^ ]/ {suite = $1; next}
      {print run, "--leak-check=" (suite ~ /Sweep/ ? "no" : "full"), tests, "--gtest_filter=" suite $1}'
} | xargs -P "$cores" -L 1 env >"$results/tests.log" 2>&1 || {
  cat "$results"/*.log
  exit 1
}
found=$(cat "$results"/[0-9]*.log | wc -l)
echo "valgrind: $(find "$results" -name '[0-9]*.log' | wc -l) processes, $found lines of findings, $SECONDS s"
[ "$found" -eq 0 ]
