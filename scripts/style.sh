#!/usr/bin/env bash
# Checks the style of all sources: clang-format on every source, clang-tidy on everything that the CPU build
# compiles, Doxygen on the public headers, ShellCheck and Flake8 on scripts. scripts/cuda-build-check.sh runs
# clang-tidy on the sources that only the production build compiles.
. "$(dirname "$0")/prelude.sh"

git ls-files '*.sh' '*.bash' .ci/run | xargs shellcheck -x -P SCRIPTDIR:.
git ls-files '*.py' | xargs flake8
git ls-files '*.h' '*.cpp' '*.cu' | xargs clang-format --dry-run -Werror
cmake --preset host >/dev/null
# OpenMP's pragmas are for the compiler; the analysis needs no OpenMP runtime.
git ls-files 'src/*.cpp' 'platform/host/*.cpp' 'tools/*.cpp' 'tests/*.cpp' 'bench/*.cpp' 'docs/*.cpp' \
  ':!tests/cuda_test.cpp' ':!bench/kernels.cpp' |
  xargs -P "$(nproc)" -n 1 clang-tidy -p build/host --quiet 2>/dev/null
cmake --preset host-asan >/dev/null
git ls-files 'fuzz/*.cpp' | xargs clang-tidy -p build/host-asan --quiet 2>/dev/null
doxygen docs/Doxyfile
