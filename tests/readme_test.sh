#!/usr/bin/env bash
# The README's program and CMake lines, as they stand, build and run against the installed library,
# also after the installation has moved.
#   readme_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1 build_dir=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

block() { sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" "$source_dir/README.md" | sed '/^```/d'; }
block cpp >"$dir/application.cpp"
{
  echo 'cmake_minimum_required(VERSION 3.25)'
  echo 'project(application CXX)'
  echo 'add_executable(application application.cpp)'
  block cmake
} >"$dir/CMakeLists.txt"
test "$(wc -l <"$dir/application.cpp")" -ge 10

cmake --install "$build_dir" --prefix "$dir/first" >/dev/null
mv "$dir/first" "$dir/prefix"
for standard in 14 17; do
  cmake -G Ninja -S "$dir" -B "$dir/build$standard" -DCMAKE_PREFIX_PATH="$dir/prefix" \
    -DCMAKE_CXX_STANDARD=$standard -DCMAKE_CXX_FLAGS='-Wall -Wextra' >/dev/null
  cmake --build "$dir/build$standard" >/dev/null
done
"$dir/prefix/bin/facezoo" weights synth DexpressionNet -o "$dir/weights" >/dev/null
head -c $((224 * 224)) /dev/zero >"$dir/image"
"$dir/build14/application" "$dir/weights" "$dir/image" >"$dir/out"
awk '{ sum[NR <= 2] += $1 } END { exit !(NR == 5 && sum[0] > 0.999 && sum[0] < 1.001 &&
  sum[1] > 0.999 && sum[1] < 1.001) }' "$dir/out"

# What the library throws is caught by type on the other side of the shared library's boundary.
cat >"$dir/application.cpp" <<'EOF'
#include <DexpressionNet.h>
int main(int, char** argv) {
  int caught = 0;
  try { DexpressionNet net("", 1, ""); } catch (NetworkError e) { caught += e == 0; }
  try { DexpressionNet net("/dev/null", 1, ""); } catch (const msgpack::v1::insufficient_bytes&) { ++caught; }
  DexpressionNet net(argv[1], 1, "");
  try { net.Forward(nullptr, 1000000, nullptr, nullptr); } catch (TensorError) { ++caught; }
  try { net.Forward(nullptr, 1, nullptr, nullptr); } catch (cudaError) { ++caught; }
  return caught == 4 ? 0 : 1;
}
EOF
cmake --build "$dir/build14" >/dev/null
"$dir/build14/application" "$dir/weights" >/dev/null 2>&1
