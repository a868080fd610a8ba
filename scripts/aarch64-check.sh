#!/usr/bin/env bash
# Builds the library and its tests for AArch64 with Debian's cross compiler, and runs the tests of the
# arithmetic under qemu: every layer, every algorithm, special numbers, and two networks against double
# precision. After the build this takes five minutes on one core.
#   scripts/aarch64-check.sh [FILTER]      FILTER: of GoogleTest, for other tests than these
. "$(dirname "$0")/prelude.sh"
. scripts/tests.sh

scripts/setup.sh --aarch64
build=build/aarch64
# MessagePack's headers serve any processor, but the other headers in their folder do not.
mkdir -p "$build/msgpack"
ln -sfn /usr/include/msgpack /usr/include/msgpack.hpp "$build/msgpack"
cmake -G Ninja -S . -B "$build" --toolchain "$PWD/cmake/aarch64-linux-gnu.cmake" \
  -DCMAKE_BUILD_TYPE=Release -DFACEZOO_PLATFORM=host -DFACEZOO_TOOL=OFF -DFACEZOO_TESTS=ON \
  -DFACEZOO_GOOGLETEST_DIR=/usr/src/googletest \
  -DFACEZOO_MSGPACK_INCLUDE_DIR="$PWD/$build/msgpack" >/dev/null
nice cmake --build "$build" --target facezoo_tests
start=$SECONDS
layers="$(kind "$build" layers):PlatformTest.*:InstructionSets.*"
networks="*DoublePrecision/DexpressionNet:*DoublePrecision/LCNN29"
nice qemu-aarch64 -L /usr/aarch64-linux-gnu "$build/bin/facezoo_tests" --gtest_brief=1 \
  --gtest_filter="${1:-$layers:$networks}"
echo "aarch64: ok, $((SECONDS - start)) s under qemu"
