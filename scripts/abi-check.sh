#!/usr/bin/env bash
# Compares the binary interface of the CPU build's library with that of the last release. Fails if a program
# that was built with the release might not run with this library; additions do no harm. Takes about a
# minute on two cores.
#   scripts/abi-check.sh [--renew]         --renew: writes the interface of this build to abi/, for a release
. "$(dirname "$0")/prelude.sh"

scripts/setup.sh --tests
build=build/abi # only the library, with debug information, in which the types are described
log=$build.log
mkdir -p build
if ! { cmake -G Ninja -S . -B "$build" -DFACEZOO_PLATFORM=host -DFACEZOO_TESTS=OFF -DFACEZOO_TOOL=OFF \
  -DCMAKE_BUILD_TYPE=Debug && cmake --build "$build"; } >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  exit 1
fi
library=$(readlink -f "$build/libfacezoo.so")
version=$(sed -n 's/^.*libfacezoo\.so\.\([0-9]*\.[0-9]*\).*/\1/p' <<<"$library")
release=abi/libfacezoo-$version.abi

# Only types that the public headers describe: others belong to other libraries, or are internal.
if [ "${1:-}" = --renew ]; then
  mkdir -p abi
  rm -f abi/*.abi
  abidw --no-corpus-path --no-comp-dir-path --no-show-locs --exported-interfaces-only \
    --no-elf-needed --drop-undefined-syms --drop-private-types --headers-dir include "$library" |
    sed "s,path='$PWD/,path='," >"$release"
  echo "$release: $(wc -c <"$release") bytes"
  exit 0
fi
abidiff --no-show-locs --no-corpus-path --no-added-syms "$release" "$library"
echo "programs built with $release run with this library: $SECONDS s"
