# shellcheck shell=bash
# Sourced after prelude.sh by scripts that run the test programs themselves instead of through CTest.

build_preset() { # PRESET TARGET...
  scripts/setup.sh --tests
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" --target "${@:2}"
}

kind() { # BUILD KIND: prints the GoogleTest filter of a kind of tests; tests/CMakeLists.txt names the kinds
  awk -v kind="$2" '$1 == kind {print $2; found = 1} END {exit !found}' "$1/tests/kinds.txt"
}

list_cases() { # PROGRAM FILTER: prints SUITE.NAME of each test, one a line
  "$1" --gtest_filter="$2" --gtest_list_tests | awk '/^[^ ]/ {suite = $1; next} {print suite $1}'
}

run_lines() { # runs the commands on standard input, one a line, side by side and on one thread each
  OMP_NUM_THREADS=1 xargs -P "$(nproc)" -L 1 env
}
