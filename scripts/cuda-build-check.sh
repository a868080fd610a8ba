#!/usr/bin/env bash
# Builds the cuda preset and checks what needs no card: the exported names are those of the host
# build, device code is there for every architecture asked for, and without a driver the library
# says so and throws what the runtime returned.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset cuda -DFACEZOO_TESTS=OFF
cmake --build --preset cuda

exports() { nm -D --defined-only "$1" | awk '{print $3}' | sort; }
diff <(exports build/host/libfacezoo.so) <(exports build/cuda/libfacezoo.so)
echo "exported names: the same $(exports build/cuda/libfacezoo.so | wc -l) as the host build"

architectures=$(sed -n 's/^CMAKE_CUDA_ARCHITECTURES:[A-Z]*=//p' build/cuda/CMakeCache.txt)
tool_dir=$(dirname "$(sed -n 's/^CMAKE_CUDA_COMPILER:[A-Z]*=//p' build/cuda/CMakeCache.txt)")
echo "architectures: ${architectures}"
"$tool_dir/cuobjdump" --list-elf --list-ptx build/cuda/libfacezoo.so

if ! ls /dev/nvidia[0-9]* >/dev/null 2>&1; then
  output=$(build/cuda/bin/facezoo info 2>&1) && {
    echo "facezoo info succeeded without a card" >&2
    exit 1
  }
  grep -q '(cuda error code: ' <<<"$output"
  echo "no driver: $output"
fi
