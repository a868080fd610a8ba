#!/usr/bin/env bash
# Builds the library for the CPU and runs the eight networks on the sample portrait.
. "$(dirname "$0")/scripts/prelude.sh"

scripts/setup.sh
echo "building (a minute or two the first time) ..."
log=build/demo.log
mkdir -p build
if ! { cmake --preset demo && cmake --build --preset demo; } >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  echo "the build failed; the whole log is $log" >&2
  exit 1
fi

tool=build/host/bin/facezoo
weights=$(mktemp -p build)
trap 'rm -f "$weights"' EXIT
echo
echo "The weights are synthetic: seeded random numbers, so the results below show that the networks"
echo "run, not what the face expresses."
for network in $("$tool" info --format json | grep -o '"network":"[^"]*' | cut -d '"' -f 4); do
  echo
  echo "$network"
  "$tool" weights synth "$network" -o "$weights" --force --seed 1 >/dev/null
  "$tool" run "$network" -w "$weights" samples/portrait.jpg
done
