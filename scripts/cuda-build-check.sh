#!/usr/bin/env bash
# Builds the cuda preset and checks what needs no card: that configuring refuses versions that are not
# supported, that the exported names are those of the host build, that there is device code for every
# architecture asked for, that the element-wise maximum loads each value once, and that the library, where
# there is no driver, says so and throws the status that the runtime returned.
. "$(dirname "$0")/prelude.sh"
. scripts/cuda-library-checks.sh

cmake --preset cuda
cmake --build --preset cuda

check_exports build/cuda/libfacezoo.so
IFS=';' read -ra architectures < <(
  sed -n 's/^CMAKE_CUDA_ARCHITECTURES:[A-Z]*=//p' build/cuda/CMakeCache.txt)
check_device_code build/cuda/libfacezoo.so "${architectures[@]}"

# A comparison that picks an address instead of a value loads that value a second time.
loads=$(nvcc -std=c++14 -ptx -I src -I platform/cuda/internal src/kernels/eltwise.cu -o /dev/stdout |
  awk '/\.entry .*EltwiseMax/ {inside = 1} inside && /ld\.global/ {++n} /^}/ {inside = 0} END {print n + 0}')
[ "$loads" -eq 2 ] || {
  echo "the element-wise maximum: expected 2 loads for each element, found $loads" >&2
  exit 1
}

tests/cuda_requirements_test.sh .
git ls-files tests/cuda_test.cpp bench/kernels.cpp |
  xargs -n 1 clang-tidy -p build/cuda --quiet 2>/dev/null

# Without a driver, tests that need a card are skipped and counted, and the tool says why it cannot run.
build/cuda/bin/facezoo_tests --gtest_brief=1 |
  grep -E '^skipped|PASSED|FAILED'
build/cuda/bin/facezoo info >/dev/null 2>build/cuda/info.log ||
  grep 'facezoo: no usable CUDA driver or device' build/cuda/info.log
