#!/usr/bin/env bash
# Builds the library for the CPU and runs a network on the sample portrait.
set -euo pipefail
cd "$(dirname "$0")"

scripts/setup.sh
echo "building (a minute or two the first time) ..."
log=build/demo.log
mkdir -p build
if ! { cmake --preset host -DFACEZOO_TESTS=OFF && cmake --build --preset host; } >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  echo "the build failed; the whole log is $log" >&2
  exit 1
fi

tool=build/host/bin/facezoo
weights=build/DexpressionNet.weights
[ -s "$weights" ] || "$tool" weights synth DexpressionNet -o "$weights" --seed 1
echo
echo "The weights are synthetic: seeded random numbers, so the probabilities below show that the"
echo "network runs, not what the face expresses."
echo
"$tool" run DexpressionNet -w "$weights" samples/portrait.jpg
