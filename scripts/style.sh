#!/usr/bin/env bash
# clang-format over every source, clang-tidy over everything that the host preset compiles and,
# where bench/run.sh has configured it, the bench preset.
set -euo pipefail
cd "$(dirname "$0")/.."

git ls-files '*.h' '*.cpp' '*.cu' | xargs clang-format --dry-run -Werror
[ -f build/host/compile_commands.json ] || cmake --preset host >/dev/null
# -fopenmp's pragmas are for the compiler; the analysis needs no OpenMP runtime.
analyse() {
  xargs -P "$(nproc)" -n 1 clang-tidy -p "$1" --quiet 2>/dev/null
}
git ls-files 'src/*.cpp' 'platform/host/*.cpp' 'tools/*.cpp' 'tests/*.cpp' | analyse build/host
[ ! -f build/bench/compile_commands.json ] || git ls-files 'bench/*.cpp' | analyse build/bench
